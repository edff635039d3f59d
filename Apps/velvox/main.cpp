// velvox: the command-line host of VelvoxKit.

#include "Commands.h"

#include <Platform/Platform.h>
#include <VelvoxKit/VelvoxVersion.h>

#include <CLI/CLI.hpp>

#include <cstdio>

int main(int argc, char** argv)
{
    CLI::App app { "velvox: the command-line host of VelvoxKit, the client library of the Velvox music service." };
    app.set_version_flag("--version", std::string("velvox ") + VELVOX_VERSION_STRING);
    app.require_subcommand(0, 1);

    bool showPaths = false;
    auto* info = app.add_subcommand("info", "Print the version and the folders VelvoxKit uses.");
    info->add_flag("--paths", showPaths, "Only the folders");

    velvox::app::JSONOptions jsonOptions;
    auto* json = app.add_subcommand("json", "Decode JSON and write it back with VelvoxKit's codec (compact unless --pretty).");
    json->add_flag("--pretty", jsonOptions.pretty, "Indent the output");
    json->add_flag("--escape-unicode", jsonOptions.escapeUnicode, "Write every non-ASCII character as \\u escapes");
    json->add_flag("--comments", jsonOptions.comments, "Accept // and /* */ comments");
    json->add_flag("--unicode-newlines", jsonOptions.unicodeNewlines, "Count U+0085, U+2028 and U+2029 as newlines");
    json->add_flag("--loose-unicode", jsonOptions.looseUnicode, "Turn ill-formed UTF-8 and illegal escapes into U+FFFD");
    json->add_flag("--permit-trailing", jsonOptions.permitTrailing, "Ignore text after the top-level value");
    json->add_option("--max-size", jsonOptions.maxSize, "The most bytes of input to read (default 268435456)");
    json->add_option("file", jsonOptions.file, "The input; - or nothing reads standard input")->default_val("-");

    velvox::app::APIOptions apiOptions;
    auto* api = app.add_subcommand("api", "Send one request to the service (or to a sandbox started in-process) and print the answer.");
    api->add_option("method", apiOptions.method, "GET, POST, PUT or DELETE")->required();
    api->add_option("path", apiOptions.path, "The resource path, e.g. /me or tracks/20005")->required();
    api->add_option("parameters", apiOptions.parameters, "KEY=VALUE, or KEY=@FILE to upload a file");
    api->add_option("--base-url", apiOptions.baseURL, "The service's base URL; without it a sandbox runs in-process");
    api->add_option("--token", apiOptions.token, "The OAuth access token (visible to other users in the process list: prefer $VELVOX_TOKEN or --token-file)");
    api->add_option("--token-file", apiOptions.tokenFile, "A file whose first line is the OAuth access token");

    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& error) {
        return app.exit(error);
    }

    if (app.got_subcommand(info)) {
        if (!showPaths)
            printf("velvox %s\n", VELVOX_VERSION_STRING);
        printf("application support: %s\n", velvox::stringByAppendingPathComponent(velvox::applicationSupportDirectory(), "Velvox").c_str());
        printf("resources: %s\n", velvox::Bundle::mainBundle().resourcePath().c_str());
        return 0;
    }
    if (app.got_subcommand(json))
        return velvox::app::runJSON(jsonOptions);
    if (app.got_subcommand(api))
        return velvox::app::runAPI(apiOptions);

    fputs(app.help().c_str(), stdout);
    return 0;
}
