#pragma once

// The host's own template filters, beside the framework's six: what its
// views need to read well and to link to each other.
//
//   clock            seconds as "m:ss" or "h:mm:ss" (a comment's place, a
//                    track's length); nothing for what is negative, not a
//                    number, or 10,000 hours and beyond
//   percent_of D     the value as a percentage of D ("12.34"), for placing a
//                    comment on the waveform; nothing outside 0 to 100 or when
//                    D is not a positive number
//   by_position      comments with a place in time (after 0) first, by that
//                    place, then the others as they came
//   view_file [K]    the file of a track's or user's view ("track-20005.html",
//                    "user-1003.html"; K 'comments': "comments-20005.html"),
//                    so that views written into one folder link each other;
//                    when the set of written files is known, one outside it
//                    gives the record's web page instead (or nothing)
//   web_link         an absolute http or https address as text, else nothing,
//                    so a service's "javascript:" permalink is no link

#include <Platform/Collections.h>
#include <Platform/Values.h>

#include <set>
#include <string>
#include <string_view>
#include <vector>

namespace velvox::views {

const std::vector<std::string_view>& hostFilterNames();
bool isHostFilter(std::string_view name);
// The filter's result; `pages`, when not null, the files that exist beside the page.
RefPtr<Object> applyHostFilter(std::string_view name, Array* arguments, Object* value, const std::set<std::string>* pages);

std::string clockText(double seconds);
// The view file of a track or user ("track-ID.html"), or of a track's
// comments; empty for anything else, or an identifier that is no file name.
std::string viewFileName(Object* value, std::string_view kind = {});
// The address, when it is an absolute http or https one with a host.
std::string webAddress(std::string_view text);

} // namespace velvox::views
