// velvox play and history: the signed-in account's played tracks.

#include "StoreCommands.h"

#include <algorithm>

namespace velvox::app::store {

int play(Session& session, const StoreCommand& command)
{
    if (int code = needArguments(command, 1, "play TRACK"))
        return code;
    int code = ExitSuccess;
    if (!session.signIn(code))
        return code;
    auto track = fetchTrack(session, command, command.arguments[0], code);
    if (!track)
        return code;
    bool wasUnplayed = track->isUnplayed();
    track->setUnplayed(false);
    if (session.options().json) {
        auto record = Dictionary::create({ { "id", jsonIdentifier(command.arguments[0]).ptr() }, { "title", track->title() ? track->title() : text("").ptr() },
            { "played_before", Number::withBool(!wasUnplayed).ptr() } });
        session.print(jsonText(record));
        return ExitSuccess;
    }
    session.print(std::string(wasUnplayed ? "played " : "played again ") + printable(str(track->title())) + "\n");
    return ExitSuccess;
}

int history(Session& session)
{
    int code = ExitSuccess;
    auto me = session.signIn(code);
    if (!me)
        return code;
    auto* played = session.store().playedTrackIdentifiers();
    std::vector<std::string> identifiers;
    if (played) {
        for (auto* identifier : *played)
            identifiers.push_back(identifier->description()->str());
    }
    // In numeric order: "20003" before "100000".
    std::sort(identifiers.begin(), identifiers.end(), [](const std::string& a, const std::string& b) {
        return a.size() != b.size() ? a.size() < b.size() : a < b;
    });
    if (session.options().json) {
        auto list = MutableArray::create();
        for (auto& identifier : identifiers)
            list->addObject(jsonIdentifier(identifier));
        session.print(jsonText(list));
        return ExitSuccess;
    }
    std::vector<std::vector<std::string>> rows { { "ID", "TITLE" } };
    for (auto& identifier : identifiers) {
        auto track = session.store().cachedResource<VXTrack>(text(identifier).ptr());
        rows.push_back({ identifier, track ? str(track->title()) : "" });
    }
    session.print(identifiers.empty() ? "No tracks played yet by " + printable(str(me->username())) + ".\n" : columns(rows, terminalWidth()));
    return ExitSuccess;
}

} // namespace velvox::app::store
