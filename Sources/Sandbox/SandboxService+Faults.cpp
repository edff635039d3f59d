// Faults: parsing "PATH=MODE" as the command line gives one, and applying a
// matching fault to a request before any route sees it.

#include "SandboxServiceImpl.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>

namespace velvox::sandbox {

using namespace detail;

namespace {

// The latency a fault really waits: faults made in code may hold any double.
double effectiveLatency(double seconds)
{
    if (!(seconds > 0))
        return 0;
    return std::min(seconds, Fault::maximumLatencySeconds);
}

} // namespace

bool parseFault(std::string_view text, Fault& fault, std::string* problem)
{
    auto fail = [&](std::string reason) {
        if (problem)
            *problem = std::move(reason);
        return false;
    };
    size_t equals = text.rfind('=');
    if (equals == std::string_view::npos || !equals || text[0] != '/')
        return fail("a fault is PATH=MODE, with PATH starting with /");
    fault = Fault {};
    fault.pathPrefix = std::string(text.substr(0, equals));
    std::string_view mode = text.substr(equals + 1);
    std::string_view argument;
    if (size_t colon = mode.find(':'); colon != std::string_view::npos) {
        argument = mode.substr(colon + 1);
        mode = mode.substr(0, colon);
    }
    auto number = [&](double& out) {
        std::string digits(argument);
        char* end = nullptr;
        out = strtod(digits.c_str(), &end);
        return !digits.empty() && end && !*end && out >= 0;
    };
    double value = 0;
    if (mode == "latency") {
        // strtod takes "inf", "nan" and 1e308, none of which a clock can wait.
        if (!number(value) || !std::isfinite(value))
            return fail("latency:SECONDS needs a finite number of seconds, 0 or more, not \"" + std::string(argument) + "\"");
        fault.kind = Fault::Kind::Latency;
        fault.seconds = std::min(value, Fault::maximumLatencySeconds);
    } else if (mode == "status") {
        static constexpr std::string_view retryAfter = ":retry-after:";
        if (size_t option = argument.find(':'); option != std::string_view::npos) {
            if (!argument.substr(option).starts_with(retryAfter))
                return fail("status:CODE takes only :retry-after:VALUE after it, not \"" + std::string(argument.substr(option)) + "\"");
            fault.retryAfter = std::string(argument.substr(option + retryAfter.size()));
            argument = argument.substr(0, option);
            // A line break would end the header and start another.
            bool control = std::any_of(fault.retryAfter.begin(), fault.retryAfter.end(), [](unsigned char c) { return c < 0x20 || c == 0x7F; });
            if (fault.retryAfter.empty() || control)
                return fail("retry-after:VALUE needs a value without control characters");
        }
        if (!number(value) || value < 100 || value > 599)
            return fail("status:CODE needs a status from 100 to 599, not \"" + std::string(argument) + "\"");
        fault.kind = Fault::Kind::Status, fault.status = static_cast<int>(value);
    }
    else if (mode == "not-json" && argument.empty())
        fault.kind = Fault::Kind::NotJSON;
    else if (mode == "cut-off" && argument.empty())
        fault.kind = Fault::Kind::CutOff;
    else if (mode == "drop" && argument.empty())
        fault.kind = Fault::Kind::Drop;
    else if (mode == "no-answer" && argument.empty())
        fault.kind = Fault::Kind::NoAnswer;
    else
        return fail("unknown fault mode " + std::string(text.substr(equals + 1))
            + " (latency:SECONDS, status:CODE[:retry-after:VALUE], not-json, cut-off, drop or no-answer)");
    return true;
}

bool SandboxService::Impl::applyFault(const httplib::Request& request, httplib::Response& response)
{
    Fault fault;
    {
        std::lock_guard lock(mutex);
        auto it = std::find_if(faults.begin(), faults.end(), [&](auto& candidate) { return request.path.starts_with(candidate.pathPrefix); });
        if (it == faults.end())
            return false;
        fault = *it;
        if (it->count > 0 && --it->count == 0)
            faults.erase(it);
    }
    switch (fault.kind) {
    case Fault::Kind::Latency: {
        std::unique_lock lock(mutex);
        stopped.wait_for(lock, std::chrono::duration<double>(effectiveLatency(fault.seconds)), [&] { return stopping.load(); });
        return false;
    }
    case Fault::Kind::Status:
        sendError(response, fault.status, std::to_string(fault.status) + " - Sandbox fault");
        if (!fault.retryAfter.empty())
            response.set_header("Retry-After", fault.retryAfter);
        return true;
    case Fault::Kind::NotJSON:
        response.status = 200;
        response.set_content("<html><body>Service temporarily unavailable</body></html>", "text/html");
        return true;
    case Fault::Kind::CutOff: {
        auto body = std::make_shared<std::string>(R"([{"id":1,"title":"a record that never ends","description":"0123456789"}])");
        response.set_content_provider(body->size(), "application/json", [body](size_t offset, size_t, httplib::DataSink& sink) {
            if (offset)
                return false; // the rest never comes
            sink.write(body->data(), body->size() / 2);
            return true;
        });
        return true;
    }
    case Fault::Kind::Drop:
        response.set_chunked_content_provider("application/json", [](size_t, httplib::DataSink&) { return false; });
        return true;
    case Fault::Kind::NoAnswer: {
        std::unique_lock lock(mutex);
        if (heldRequests >= maximumHeldRequests) {
            // Every held request keeps a worker: past the bound, the client
            // still gets no answer, but the worker is free at once.
            lock.unlock();
            shutDownConnections(port, request.remote_port);
            response.status = 503;
            return true;
        }
        ++heldRequests;
        stopped.wait(lock, [&] { return stopping.load(); });
        --heldRequests;
        response.status = 503;
        return true;
    }
    }
    return false;
}

} // namespace velvox::sandbox
