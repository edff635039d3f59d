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

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>

namespace velvox::test {

// A TCP socket bound to a free port of 127.0.0.1 (not listening yet).
inline int bindLoopbackSocket(int* port)
{
    int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address {};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof(address));
    socklen_t length = sizeof(address);
    getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length);
    *port = ntohs(address.sin_port);
    return fd;
}

// A loopback port that nothing listens on: connections to it are refused.
inline int refusingLoopbackPort()
{
    int port = 0;
    close(bindLoopbackSocket(&port));
    return port;
}

// A server that answers every connection with the same bytes, as written:
// for answers no well-behaved HTTP library would send (bad lengths, say).
// Unless it waits for a request's head, it answers as soon as it accepts
// (for clients that would wait first, such as a TLS client).
class RawServer {
public:
    explicit RawServer(std::string reply, bool waitsForRequest = true)
        : m_reply(std::move(reply))
    {
        m_socket = bindLoopbackSocket(&m_port);
        listen(m_socket, 8);
        m_thread = std::thread([this, waitsForRequest] {
            while (!m_stopping) {
                int client = accept(m_socket, nullptr, nullptr);
                if (client < 0)
                    break;
                ++m_connections;
                // Read the request's head, then answer and close.
                std::string request;
                char buffer[4096];
                ssize_t n;
                while (waitsForRequest && request.find("\r\n\r\n") == std::string::npos && (n = read(client, buffer, sizeof(buffer))) > 0)
                    request.append(buffer, n);
                [[maybe_unused]] ssize_t written = write(client, m_reply.data(), m_reply.size());
                shutdown(client, SHUT_RDWR);
                close(client);
            }
        });
    }
    ~RawServer()
    {
        m_stopping = true;
        shutdown(m_socket, SHUT_RDWR);
        close(m_socket);
        if (m_thread.joinable())
            m_thread.join();
    }
    std::string baseURL() const { return "http://127.0.0.1:" + std::to_string(m_port); }
    int port() const { return m_port; }
    // The connections accepted so far.
    size_t connections() const { return m_connections; }

private:
    std::string m_reply;
    int m_socket { -1 };
    int m_port { 0 };
    std::atomic<bool> m_stopping { false };
    std::atomic<size_t> m_connections { 0 };
    std::thread m_thread;
};

} // namespace velvox::test
