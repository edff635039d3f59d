// velvox: the command-line host of VelvoxKit, a real client of the store.

#include "Commands.h"
#include "Session.h"

#include <Platform/Platform.h>
#include <VelvoxKit/VXResourceController.h>
#include <VelvoxKit/VelvoxVersion.h>

#include <CLI/CLI.hpp>

#include <cstdio>

using namespace velvox;
using namespace velvox::app;

namespace {

int info(bool pathsOnly)
{
    if (!pathsOnly)
        printf("velvox %s\n", VELVOX_VERSION_STRING);
    auto store = VXResourceController::create();
    printf("application support: %s\n", store->applicationSupportDirectory().c_str());
    printf("resources: %s\n", Bundle::mainBundle().resourcePath().c_str());
    if (pathsOnly)
        return ExitSuccess;
    auto statistics = store->resourceCacheStatistics();
    printf("identity map: %zu objects, about %zu KB\n", statistics.objectCount, statistics.estimatedBytes / 1024);
    for (auto& perClass : statistics.classes)
        printf("  %-10s %zu\n", perClass.className.c_str(), perClass.objectCount);
    return ExitSuccess;
}

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
    app.add_option("--token", service.token, "The OAuth access token (visible in the process list: prefer $VELVOX_TOKEN or --token-file)");
    app.add_option("--token-file", service.tokenFile, "A file whose first line is the OAuth access token");
    app.add_flag("--json", service.json, "Write JSON records for scripts instead of tables");
    app.add_flag("-q,--quiet", service.quiet, "Write nothing but errors");
    app.add_flag("--all", service.all, "Load every page of a list, not only the first");
    bool verbose = false;
    app.add_flag("-v,--verbose", verbose, "Also show the framework's log lines");

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
    api->add_option("method", apiOptions.method, "GET, POST, PUT or DELETE")->required();
    api->add_option("path", apiOptions.path, "The resource path, e.g. /me or tracks/20005")->required();
    api->add_option("parameters", apiOptions.parameters, "KEY=VALUE, or KEY=@FILE to upload a file");

    auto* demo = app.add_subcommand("demo", "A scripted tour of the framework on the embedded sandbox.");

    StoreCommand store;
    struct Spec {
        const char* name;
        const char* help;
    };
    static const Spec specs[] = {
        { "me", "The signed-in user." },
        { "user", "A user: user ID [--refresh]." },
        { "track", "A track: track ID [--refresh]." },
        { "tracks", "Tracks: the signed-in user's, another's (--user ID), or a search (--search Q)." },
        { "favorites", "Favorite tracks of the signed-in user or --user ID." },
        { "followers", "Followers of the signed-in user or --user ID." },
        { "followings", "Users followed by the signed-in user or --user ID." },
        { "favoriters", "Users who favorited a track: favoriters TRACK." },
        { "users", "Users found by a search: users --search Q." },
        { "dashboard", "The activity feed (--exclusive for the exclusive one)." },
        { "comments", "Comments on a track: comments TRACK." },
        { "follow", "Follow a user: follow USER." },
        { "unfollow", "Stop following a user: unfollow USER." },
        { "favorite", "Favorite a track: favorite TRACK." },
        { "unfavorite", "Unfavorite a track: unfavorite TRACK." },
        { "comment", "Comment on a track: comment TRACK TEXT [--at SECONDS]." },
        { "upload", "Upload a sound: upload FILE --title T [--description D] [--sharing S] [--wait]." },
        { "play", "Register a play of a track: play TRACK." },
        { "history", "The tracks the signed-in user has played." },
        { "view", "An HTML view: view dashboard | track ID | user ID | comments ID [-o FILE]." },
    };
    std::vector<CLI::App*> storeCommands;
    for (auto& spec : specs) {
        auto* command = app.add_subcommand(spec.name, spec.help);
        command->add_option("arguments", store.arguments, "The command's arguments");
        std::string name = spec.name;
        if (name == "user" || name == "track")
            command->add_flag("--refresh", store.refresh, "Ask the service even when the identity map has it");
        if (name == "tracks" || name == "favorites" || name == "followers" || name == "followings")
            command->add_option("--user", store.userIdentifier, "Another user's identifier");
        if (name == "tracks" || name == "users")
            command->add_option("--search", store.search, "A search query");
        if (name == "dashboard")
            command->add_flag("--exclusive", store.exclusive, "The exclusive feed");
        if (name == "comment")
            command->add_option("--at", store.at, "The position in the track, in seconds");
        if (name == "upload") {
            command->add_option("--title", store.title, "The track's title");
            command->add_option("--description", store.description, "The track's description");
            command->add_option("--sharing", store.sharing, "public or private");
            command->add_flag("--wait", store.wait, "Follow the track until the service has processed it");
        }
        if (name == "view")
            command->add_option("-o,--output", store.output, "The file to write (default: standard output)");
        storeCommands.push_back(command);
    }

    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& error) {
        int code = app.exit(error);
        return code == 0 ? ExitSuccess : ExitUsage;
    }

    // The framework's log lines are for developers; people see them when asked.
    if (!verbose)
        setLogSink([](std::string_view) {});

    if (app.got_subcommand(infoCommand))
        return info(pathsOnly);
    if (app.got_subcommand(json))
        return runJSON(jsonOptions);
    if (app.got_subcommand(api)) {
        apiOptions.baseURL = service.baseURL;
        apiOptions.token = service.token;
        apiOptions.tokenFile = service.tokenFile;
        return runAPI(apiOptions);
    }

    try {
        if (app.got_subcommand(demo))
            return runDemo(service);
        for (auto* command : storeCommands) {
            if (!app.got_subcommand(command))
                continue;
            store.name = command->get_name();
            Session session(service);
            if (int code = session.open(store.name.c_str()))
                return code;
            int code = ExitFailure;
            try {
                code = runStoreCommand(session, store);
            } catch (const Exception& exception) {
                // The archives are still saved, by finish().
                fprintf(stderr, "velvox %s: %s: %s\n", store.name.c_str(), exception.name().c_str(), exception.reason().c_str());
                code = ExitException;
            }
            return session.finish(code);
        }
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
