#pragma once

// A real HTTP server on loopback for tests of the layers that talk to one:
// the test registers its routes, start() binds a free port and serves from a
// thread of its own, and the destructor stops it.

#include <httplib.h>

#include <chrono>
#include <string>
#include <thread>

namespace velvox::test {

class TestServer {
public:
    TestServer() = default;
    ~TestServer() { stop(); }

    httplib::Server& routes() { return m_server; }

    // Binds 127.0.0.1 on a free port and serves until stop(); answers the base URL.
    std::string start()
    {
        m_server.set_keep_alive_timeout(1);
        m_port = m_server.bind_to_any_port("127.0.0.1");
        m_thread = std::thread([this] { m_server.listen_after_bind(); });
        while (!m_server.is_running())
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        return baseURL();
    }
    void stop()
    {
        m_server.stop();
        if (m_thread.joinable())
            m_thread.join();
    }
    std::string baseURL() const { return "http://127.0.0.1:" + std::to_string(m_port); }

private:
    httplib::Server m_server;
    std::thread m_thread;
    int m_port { 0 };
};

} // namespace velvox::test
