// velvox: the command-line host of VelvoxKit.

#include <Platform/Platform.h>

#include <CLI/CLI.hpp>

#include <cstdio>

int main(int argc, char** argv)
{
    CLI::App app { "velvox: the command-line host of VelvoxKit, the client library of the Velvox music service." };
    app.set_version_flag("--version", std::string("velvox ") + VELVOX_VERSION);
    app.require_subcommand(0, 1);

    bool showPaths = false;
    auto* info = app.add_subcommand("info", "Print the version and the folders VelvoxKit uses.");
    info->add_flag("--paths", showPaths, "Only the folders");

    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& error) {
        return app.exit(error);
    }

    if (app.got_subcommand(info)) {
        if (!showPaths)
            printf("velvox %s\n", VELVOX_VERSION);
        printf("application support: %s\n", velvox::stringByAppendingPathComponent(velvox::applicationSupportDirectory(), "Velvox").c_str());
        printf("resources: %s\n", velvox::Bundle::mainBundle().resourcePath().c_str());
        return 0;
    }

    fputs(app.help().c_str(), stdout);
    return 0;
}
