#pragma once

// What velvox's store commands share (the forms in which they show models,
// argument checks, the fetches several of them make) and the entry point of
// each command family, which runStoreCommand dispatches to. One file a family:
// single objects and lists, social changes, upload, playback, views.

#include "Session.h"

#include <string>

namespace velvox::app::store {

Ref<String> text(const std::string& value);
std::string str(String* value);

// Shows one model object: its record for scripts, a few lines for people.
void showObject(Session&, ZUObject&, const std::string& note = {});
// Shows the items of a list: a table for people, an array of records for scripts.
void showItems(Session&, Array& items);
// ExitSuccess when the command has `count` arguments, else ExitUsage after saying the usage.
int needArguments(const StoreCommand&, size_t count, const char* usage);
// A track or user through the store for a command; null with the exit code
// in `code` when it fails (a 404 says "the track ID was not found").
RefPtr<VXTrack> fetchTrack(Session&, const StoreCommand&, const std::string& identifier, int& code, bool refresh = false);
RefPtr<VXUser> fetchUser(Session&, const StoreCommand&, const std::string& identifier, int& code);
// What a command's failure names: "the track 20005", "the user 1004".
std::string trackNamed(const std::string& identifier);
std::string userNamed(const std::string& identifier);

// me, user, track (ObjectCommands.cpp).
int showSingleObject(Session&, const StoreCommand&);
// tracks, favorites, followers, followings, users, dashboard, favoriters,
// comments; ExitUsage for a name that is none of them (ObjectCommands.cpp).
int showList(Session&, const StoreCommand&);
// follow, unfollow, favorite, unfavorite, comment (SocialCommands.cpp).
int follow(Session&, const StoreCommand&, bool following);
int favorite(Session&, const StoreCommand&, bool on);
int comment(Session&, const StoreCommand&);
// upload (UploadCommand.cpp).
int upload(Session&, const StoreCommand&);
// play, history (PlaybackCommands.cpp).
int play(Session&, const StoreCommand&);
int history(Session&);
// view (ViewCommand.cpp).
int view(Session&, const StoreCommand&);

} // namespace velvox::app::store
