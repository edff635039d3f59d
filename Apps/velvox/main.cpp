// velvox: the command-line host of VelvoxKit, a real client of the store.

#include "Commands.h"
#include "Session.h"

#include <VelvoxKit/VXArchiveStore.h>

#include <Platform/Platform.h>
#include <VelvoxKit/VXResourceController.h>
#include <VelvoxKit/VelvoxVersion.h>

#include <CLI/CLI.hpp>

#include <cmath>
#include <cstdio>
#include <map>

using namespace velvox;
using namespace velvox::app;

namespace {

int info(const ServiceOptions& options, bool pathsOnly)
{
    // The folder of the service the other commands would talk to.
    useServiceFolder(serviceFolderName(resolvedBaseURL(options)));
    std::optional<size_t> budget;
    std::string problem;
    if (!memoryBudgetOf(options, budget, problem)) {
        fprintf(stderr, "velvox info: %s\n", problem.c_str());
        return ExitUsage;
    }
    auto store = VXResourceController::create();
    auto statistics = store->resourceCacheStatistics();
    auto [answers, answerBytes] = VXVelvoxAPI::keptAnswers({});
    // Changes kept while the service could not be reached, of every account.
    VXChangeJournal journal(VXArchiveStore::changesPath());
    journal.load();
    auto keptText = [](const VXChangeJournal::Entry& entry) {
        std::string text(VXChangeJournal::nameOfKind(entry.kind));
        return text + (entry.isComment() ? " on " : " ") + printable(entry.target);
    };
    if (options.json) {
        auto classes = MutableDictionary::create();
        for (auto& perClass : statistics.classes)
            classes->setObject(Number::withInteger(static_cast<int64_t>(perClass.objectCount)).ptr(), perClass.className);
        auto record = MutableDictionary::create();
        record->setObject(String::create(VELVOX_VERSION_STRING).ptr(), "version");
        record->setObject(String::create(store->applicationSupportDirectory()).ptr(), "application_support");
        record->setObject(String::create(Bundle::mainBundle().resourcePath()).ptr(), "resources");
        if (!pathsOnly) {
            auto map = Dictionary::create({ { "objects", Number::withInteger(static_cast<int64_t>(statistics.objectCount)).ptr() },
                { "bytes", Number::withInteger(static_cast<int64_t>(statistics.estimatedBytes)).ptr() }, { "classes", classes.ptr() } });
            record->setObject(map.ptr(), "identity_map");
            if (budget)
                record->setObject(Number::withInteger(static_cast<int64_t>(std::min<size_t>(*budget, INT64_MAX))).ptr(), "memory_budget");
            else
                record->setObject(&Null::null(), "memory_budget");
            auto kept = Dictionary::create({ { "path", String::create(VXVelvoxAPI::AnswerCache::defaultPath()).ptr() },
                { "answers", Number::withInteger(static_cast<int64_t>(answers)).ptr() }, { "bytes", Number::withInteger(static_cast<int64_t>(answerBytes)).ptr() } });
            record->setObject(kept.ptr(), "answer_cache");
            auto changes = MutableArray::create();
            for (auto& entry : journal.entries()) {
                auto change = MutableDictionary::create();
                change->setObject(String::create(VXChangeJournal::nameOfKind(entry.kind)).ptr(), "kind");
                change->setObject(jsonIdentifier(entry.target).ptr(), "target");
                if (entry.isComment())
                    change->setObject(String::create(entry.body).ptr(), "body");
                changes->addObject(change.ptr());
            }
            record->setObject(changes.ptr(), "kept_changes");
        }
        fputs(jsonText(record).c_str(), stdout);
        return ExitSuccess;
    }
    if (!pathsOnly)
        printf("velvox %s\n", VELVOX_VERSION_STRING);
    printf("application support: %s\n", store->applicationSupportDirectory().c_str());
    printf("resources: %s\n", Bundle::mainBundle().resourcePath().c_str());
    if (pathsOnly)
        return ExitSuccess;
    printf("identity map: %zu objects, about %zu KB\n", statistics.objectCount, statistics.estimatedBytes / 1024);
    for (auto& perClass : statistics.classes)
        printf("  %-10s %zu\n", perClass.className.c_str(), perClass.objectCount);
    if (budget)
        printf("memory budget: %s bytes%s\n", grouped(*budget).c_str(), *budget % (1 << 20) ? "" : (" (" + std::to_string(*budget >> 20) + " MiB)").c_str());
    else
        printf("memory budget: none (the map keeps every object a run meets)\n");
    printf("answers kept for revalidation: %zu, %zu KB in %s\n", answers, answerBytes / 1024, VXVelvoxAPI::AnswerCache::defaultPath().c_str());
    printf("changes kept to send: %zu\n", journal.entries().size());
    for (auto& entry : journal.entries())
        printf("  %s\n", keptText(entry).c_str());
    return ExitSuccess;
}

// How many single-character edits (a swap of two neighbours counting as one)
// turn one word into the other.
size_t editDistance(const std::string& a, const std::string& b)
{
    std::vector<std::vector<size_t>> d(a.size() + 1, std::vector<size_t>(b.size() + 1));
    for (size_t i = 0; i <= a.size(); ++i)
        d[i][0] = i;
    for (size_t j = 0; j <= b.size(); ++j)
        d[0][j] = j;
    for (size_t i = 1; i <= a.size(); ++i) {
        for (size_t j = 1; j <= b.size(); ++j) {
            d[i][j] = std::min({ d[i - 1][j] + 1, d[i][j - 1] + 1, d[i - 1][j - 1] + (a[i - 1] == b[j - 1] ? 0 : 1) });
            if (i > 1 && j > 1 && a[i - 1] == b[j - 2] && a[i - 2] == b[j - 1])
                d[i][j] = std::min(d[i][j], d[i - 2][j - 2] + 1);
        }
    }
    return d[a.size()][b.size()];
}

// The command a mistyped word most likely meant, or empty when none is close.
std::string closestCommand(const CLI::App& app, const std::string& word)
{
    std::string best;
    size_t bestDistance = std::max<size_t>(2, word.size() / 3) + 1;
    for (auto* command : app.get_subcommands([](const CLI::App*) { return true; })) {
        size_t distance = editDistance(word, command->get_name());
        if (distance < bestDistance) {
            best = command->get_name();
            bestDistance = distance;
        }
    }
    return best;
}

// Identifiers are decimal numbers: anything else is refused before it is sent.
CLI::Validator identifierCheck(const char* what)
{
    return CLI::Validator(
        [what](std::string& value) -> std::string {
            if (!value.empty() && value.size() <= 18 && value.find_first_not_of("0123456789") == std::string::npos)
                return {};
            return std::string("must be ") + what + "'s identifier (a number), not \"" + value + "\"";
        },
        "NUMBER");
}

// The options every command takes, in each command's help.
const char* const globalOptionsHelp = "Global options (before or after the command):\n"
                                      "  --json               Write JSON for scripts instead of tables\n"
                                      "  --all                Load every page of a list, not only the first\n"
                                      "  -q,--quiet           Write nothing but errors\n"
                                      "  -v,--verbose         Show each request (method, path, status, time)\n"
                                      "  --timeout SECONDS    How long a request may take (default 30)\n"
                                      "  --memory-budget SIZE The identity map's memory budget, such as 64M\n"
                                      "  --base-url URL       The service (else $VELVOX_BASE_URL; else an embedded sandbox)\n"
                                      "  --token-file FILE    The access token's file (or $VELVOX_TOKEN; --token T)\n";

} // namespace

int main(int argc, char** argv)
{
    CLI::App app { "velvox: the command-line client of the Velvox music service, built on VelvoxKit.\n"
                   "Without --base-url it talks to a sandbox service started in-process." };
    app.set_version_flag("--version", std::string("velvox ") + VELVOX_VERSION_STRING);
    app.require_subcommand(0, 1);
    app.fallthrough();

    ServiceOptions service;
    app.add_option("--base-url", service.baseURL, "The service's base URL (else $VELVOX_BASE_URL; else an embedded sandbox)");
    auto* tokenOption = app.add_option("--token", service.token, "The OAuth access token (visible in the process list: prefer $VELVOX_TOKEN or --token-file)");
    auto* tokenFileOption = app.add_option("--token-file", service.tokenFile, "A file whose first line is the OAuth access token");
    app.add_flag("--json", service.json, "Write JSON records for scripts instead of tables");
    app.add_flag("-q,--quiet", service.quiet, "Write nothing but errors");
    app.add_flag("--all", service.all, "Load every page of a list, not only the first");
    app.add_flag("-v,--verbose", service.verbose, "Show each request (method, path, status, time) and the framework's log lines");
    app.add_option("--timeout", service.timeout, "Seconds a request may take (default 30)")
        ->check(CLI::Range(0.1, 86400.0));
    app.add_option("--memory-budget", service.memoryBudget, "The identity map's memory budget, such as 64M (else $VELVOX_MEMORY_BUDGET; else none)")
        ->check(CLI::Validator(
            [](std::string& value) -> std::string {
                size_t bytes = 0;
                return parseByteSize(value, bytes) ? std::string() : "must be a size such as 64M or 33554432, not \"" + value + "\"";
            },
            "SIZE"));

    bool pathsOnly = false;
    auto* infoCommand = app.add_subcommand("info", "The version, the folders VelvoxKit uses and what the identity map holds.");
    infoCommand->add_flag("--paths", pathsOnly, "Only the folders");

    JSONOptions jsonOptions;
    auto* json = app.add_subcommand("json", "Decode JSON and write it back with VelvoxKit's codec (compact unless --pretty).");
    json->add_flag("--pretty", jsonOptions.pretty, "Indent the output");
    json->add_flag("--escape-unicode", jsonOptions.escapeUnicode, "Write every non-ASCII character as \\u escapes");
    json->add_flag("--comments", jsonOptions.comments, "Accept // and /* */ comments");
    json->add_flag("--unicode-newlines", jsonOptions.unicodeNewlines, "Count U+0085, U+2028 and U+2029 as newlines");
    json->add_flag("--loose-unicode", jsonOptions.looseUnicode, "Turn ill-formed UTF-8 and illegal escapes into U+FFFD");
    json->add_flag("--permit-trailing", jsonOptions.permitTrailing, "Ignore text after the top-level value");
    json->add_option("--max-size", jsonOptions.maxSize, "The most bytes of input to read (default 268435456)");
    json->add_option("file", jsonOptions.file, "The input; - or nothing reads standard input")->default_val("-");

    APIOptions apiOptions;
    auto* api = app.add_subcommand("api", "Send one raw request to the service (or the embedded sandbox) and print the answer.");
    api->add_option("method", apiOptions.method, "GET, POST, PUT or DELETE")->required()->check(CLI::IsMember({ "GET", "POST", "PUT", "DELETE" }, CLI::ignore_case));
    api->add_option("path", apiOptions.path, "The resource path, e.g. /me or tracks/20005")->required();
    api->add_option("parameters", apiOptions.parameters, "KEY=VALUE, or KEY=@FILE to upload a file");

    std::string demoOutput;
    auto* demo = app.add_subcommand("demo", "A scripted tour of the framework on the embedded sandbox.");
    demo->add_option("-o,--output", demoOutput, "Where to write the dashboard page (default: the demo's data folder)");

    StoreCommand store;
    // Each command's positionals, in order; a name ending in "?" may be left out.
    struct Spec {
        const char* name;
        const char* help;
        std::vector<const char*> positionals;
    };
    static const Spec specs[] = {
        { "me", "The signed-in user.", {} },
        { "user", "A user, from the identity map of an earlier run unless --refresh.", { "USER" } },
        { "track", "A track, from the identity map of an earlier run unless --refresh.", { "TRACK" } },
        { "tracks", "Tracks: the signed-in user's, another's (--user ID), or a search (--search Q).", {} },
        { "favorites", "Favorite tracks of the signed-in user or --user ID.", {} },
        { "followers", "Followers of the signed-in user or --user ID.", {} },
        { "followings", "Users followed by the signed-in user or --user ID.", {} },
        { "favoriters", "Users who favorited a track.", { "TRACK" } },
        { "users", "Users found by a search (--search Q).", {} },
        { "dashboard", "The activity feed (--exclusive for the exclusive one).", {} },
        { "comments", "Comments on a track.", { "TRACK" } },
        { "follow", "Follow a user (nothing changes when already following).", { "USER" } },
        { "unfollow", "Stop following a user (nothing changes when not following).", { "USER" } },
        { "favorite", "Favorite a track.", { "TRACK" } },
        { "unfavorite", "Unfavorite a track (nothing changes when it is no favorite).", { "TRACK" } },
        { "comment", "Comment on a track, at a position with --at.", { "TRACK", "TEXT" } },
        { "upload", "Upload a sound file as a new track.", { "FILE" } },
        { "play", "Register a play of a track.", { "TRACK" } },
        { "history", "The tracks the signed-in user has played.", {} },
        { "view", "An HTML view: dashboard, track TRACK, user USER or comments TRACK.", { "VIEW", "ID?" } },
    };
    static const std::map<std::string, std::string> positionalHelp {
        { "USER", "The user's identifier, e.g. 1004" },
        { "TRACK", "The track's identifier, e.g. 20005" },
        { "TEXT", "The comment" },
        { "FILE", "The sound file" },
        { "VIEW", "dashboard, track, user or comments" },
        { "ID?", "The track's or user's identifier (not for dashboard)" },
    };
    std::vector<CLI::App*> storeCommands;
    // One slot a positional; the given ones become the command's arguments.
    std::map<std::string, std::vector<std::pair<CLI::Option*, std::string>>> slots;
    for (auto& spec : specs)
        slots[spec.name].resize(spec.positionals.size());
    for (auto& spec : specs) {
        auto* command = app.add_subcommand(spec.name, spec.help);
        command->footer(globalOptionsHelp);
        std::string name = spec.name;
        auto& commandSlots = slots[name];
        for (size_t i = 0; i < spec.positionals.size(); ++i) {
            std::string positional = spec.positionals[i];
            bool optional = positional.back() == '?';
            auto* option = command->add_option(optional ? positional.substr(0, positional.size() - 1) : positional, commandSlots[i].second,
                positionalHelp.at(positional));
            if (!optional)
                option->required();
            if (positional == "USER")
                option->check(identifierCheck("a user"));
            if (positional == "TRACK")
                option->check(identifierCheck("a track"));
            if (positional == "ID?")
                option->check(identifierCheck("a track or user"));
            commandSlots[i].first = option;
        }
        if (name == "user" || name == "track")
            command->add_flag("--refresh", store.refresh, "Ask the service even when the identity map has it");
        if (name == "tracks" || name == "favorites" || name == "followers" || name == "followings")
            command->add_option("--user", store.userIdentifier, "Another user's identifier")->check(identifierCheck("a user"));
        if (name == "tracks" || name == "users") {
            auto* search = command->add_option("--search", store.search, "A search query");
            if (name == "users")
                search->required();
        }
        if (name == "dashboard")
            command->add_flag("--exclusive", store.exclusive, "The exclusive feed");
        if (name == "comment") {
            command->add_option("--at", store.at, "The position in the track, in seconds")->check(CLI::Validator([](std::string& value) -> std::string {
                char* end = nullptr;
                double seconds = strtod(value.c_str(), &end);
                if (end && !*end && std::isfinite(seconds) && seconds >= 0 && seconds < longestDuration)
                    return {};
                return "a position is a number of seconds from 0, not " + value;
            }, "SECONDS"));
        }
        if (name == "upload") {
            command->add_option("--title", store.title, "The track's title")->required();
            command->add_option("--description", store.description, "The track's description");
            command->add_option("--sharing", store.sharing, "public or private")->check(CLI::IsMember({ "public", "private" }));
            command->add_flag("--wait", store.wait, "Follow the track until the service has processed it");
        }
        if (name == "view")
            command->add_option("-o,--output", store.output, "The file to write (default: standard output); with --all, the folder");
        storeCommands.push_back(command);
    }

    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& error) {
        // A mistyped command: the closest one, as git and gh suggest.
        if (dynamic_cast<const CLI::ExtrasError*>(&error) && app.get_subcommands().empty() && !app.remaining().empty()) {
            std::string word = app.remaining().front();
            if (word.size() > 64)
                word.resize(64);
            if (auto suggestion = closestCommand(app, word); !suggestion.empty() && word[0] != '-') {
                fprintf(stderr, "velvox: no command \"%s\". Did you mean \"%s\"?\nRun velvox --help for the commands.\n", printable(word).c_str(),
                    suggestion.c_str());
                return ExitUsage;
            }
        }
        int code = app.exit(error);
        return code == 0 ? ExitSuccess : ExitUsage;
    }

    // The framework's log lines are for developers; people see them when asked.
    if (!service.verbose)
        setLogSink([](std::string_view) {});

    // The embedded sandbox has its own token; one given for it would be ignored.
    if ((tokenOption->count() || tokenFileOption->count()) && resolvedBaseURL(service).empty() && !app.got_subcommand(json)
        && !app.got_subcommand(infoCommand)) {
        fprintf(stderr, "velvox: --token and --token-file need --base-url (or $VELVOX_BASE_URL); without them velvox talks to its embedded sandbox\n");
        return ExitUsage;
    }

    if (app.got_subcommand(infoCommand))
        return info(service, pathsOnly);
    if (app.got_subcommand(json))
        return runJSON(jsonOptions);
    if (app.got_subcommand(api)) {
        apiOptions.baseURL = resolvedBaseURL(service);
        apiOptions.token = service.token;
        apiOptions.tokenFile = service.tokenFile;
        apiOptions.verbose = service.verbose;
        apiOptions.quiet = service.quiet;
        apiOptions.timeout = service.timeout;
        return runAPI(apiOptions);
    }

    try {
        if (app.got_subcommand(demo))
            return runDemo(service, demoOutput);
        for (auto* command : storeCommands) {
            if (!app.got_subcommand(command))
                continue;
            store.name = command->get_name();
            for (auto& [option, value] : slots[store.name]) {
                if (option->count())
                    store.arguments.push_back(value);
            }
            Session session(service);
            if (int code = session.open(store.name.c_str()))
                return code;
            int code = ExitFailure;
            try {
                code = runStoreCommand(session, store);
            } catch (const Interrupted& interruption) {
                // The archives are saved, by finish(), before velvox ends.
                fprintf(stderr, "\nvelvox %s: interrupted; the store's archives are saved\n", store.name.c_str());
                code = interruptedStatus(interruption.signal);
            } catch (const Exception& exception) {
                // The archives are still saved, by finish().
                fprintf(stderr, "velvox %s: %s: %s\n", store.name.c_str(), exception.name().c_str(), exception.reason().c_str());
                code = ExitException;
            }
            return session.finish(code);
        }
    } catch (const Interrupted& interruption) {
        return interruptedStatus(interruption.signal);
    } catch (const Exception& exception) {
        fprintf(stderr, "velvox: %s: %s\n", exception.name().c_str(), exception.reason().c_str());
        return ExitException;
    } catch (const std::exception& exception) {
        fprintf(stderr, "velvox: %s\n", exception.what());
        return ExitException;
    }

    fputs(app.help().c_str(), stdout);
    return ExitSuccess;
}
