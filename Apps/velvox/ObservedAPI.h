#pragma once

// The service's client as velvox makes it: on a terminal it draws an upload's
// progress on standard error, and with -v it tells each request (method,
// path, status, time; never the token), as a person watching expects.

#include <VelvoxAPI/VXVelvoxAPI.h>

#include <memory>
#include <string>
#include <string_view>

namespace velvox::app {

class ObservedAPI final : public VXVelvoxAPI {
public:
    struct Feedback {
        bool progressBar { false };
        bool requestLog { false };
    };
    // Null, with the reason, when VXVelvoxAPI refuses the configuration.
    static RefPtr<ObservedAPI> create(std::string_view baseURL, std::string_view accessToken, Feedback, std::string* problem);

    // The copy the API controller keeps observes what the controller sends.
    Ref<VXVelvoxAPI> copyWithAPIDelegate(VXVelvoxAPIDelegate*) const override;
    void performMethod(const String& method, const String& resource, Dictionary* parameters, Object* context, Dictionary* userInfo) override;
    ~ObservedAPI() override;

    class Tap;

private:
    ObservedAPI(std::string baseURL, std::string accessToken, Feedback);
    Feedback m_feedback;
    std::unique_ptr<Tap> m_tap;
};

// A query string with the values of keys that hold secrets ("oauth_token",
// "secret_token", "password"...) written as "[redacted]".
std::string redactedQuery(std::string_view pathAndQuery);

} // namespace velvox::app
