// velvox-sandbox: a local Velvox-compatible service for demos and tests.

#include <Sandbox/SandboxService.h>

#include <CLI/CLI.hpp>

#include <csignal>
#include <cstdio>
#include <string>
#include <vector>

int main(int argc, char** argv)
{
    CLI::App app { "velvox-sandbox: a local service that speaks the Velvox REST API, with a sample catalogue." };
    velvox::sandbox::SandboxService::Options options;
    app.add_option("--port", options.port, "Port on 127.0.0.1 (0 picks a free one)")->default_val(8080);
    app.add_option("--token", options.token, "The OAuth token clients must send")->default_val("sandbox-token");
    app.add_option("--catalogue", options.cataloguePath, "A catalogue file instead of the shipped one");
    app.add_option("--processing-seconds", options.processingSeconds, "How long an upload stays \"storing\"")->default_val(3.0);
    app.add_flag("--log", options.logRequests, "Log every request");
    app.add_option("--max-upload", options.maximumUploadBytes, "The largest request body accepted, in bytes, with a length or chunked")->default_val(64u * 1024 * 1024);
    std::vector<std::string> faults;
    app.add_option("--fault", faults,
        "Answer requests under PATH badly: PATH=latency:SECONDS (finite, at most 3600 applied), status:CODE[:retry-after:VALUE] (VALUE sent as \"Retry-After\"), not-json, cut-off, drop "
        "or no-answer (at most 8 held at once; past that the connection closes) (repeatable)");
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& error) {
        return app.exit(error);
    }

    // Ctrl-C and SIGTERM are waited for here, not handled asynchronously.
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGINT);
    sigaddset(&signals, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &signals, nullptr);

    velvox::sandbox::SandboxService service(options);
    std::string error;
    for (auto& text : faults) {
        velvox::sandbox::Fault fault;
        if (!velvox::sandbox::parseFault(text, fault, &error)) {
            fprintf(stderr, "velvox-sandbox: %s\n", error.c_str());
            return 2;
        }
        service.addFault(fault);
    }
    if (!service.start(&error)) {
        fprintf(stderr, "velvox-sandbox: %s\n", error.c_str());
        return 1;
    }
    printf("Velvox sandbox listening at %s\n", service.baseURL().c_str());
    printf("token: %s\n", service.token().c_str());
    printf("Press Ctrl-C to stop.\n");
    fflush(stdout);

    int received = 0;
    sigwait(&signals, &received);
    service.stop();
    printf("\nVelvox sandbox stopped.\n");
    return 0;
}
