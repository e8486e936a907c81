// A real HTTP server on 127.0.0.1 for tests: register handlers on server(),
// call start(), build URLs with url(). It binds a free loopback port and
// stops itself when the object goes out of scope.
#pragma once

#include <httplib.h>

#include <chrono>
#include <stdexcept>
#include <string>
#include <thread>

class LocalServer {
public:
    LocalServer() = default;
    LocalServer(const LocalServer &) = delete;
    LocalServer &operator=(const LocalServer &) = delete;
    ~LocalServer() { stop(); }

    httplib::Server &server() { return server_; }

    void start()
    {
        port_ = server_.bind_to_any_port("127.0.0.1");
        if (port_ <= 0)
            throw std::runtime_error("cannot bind a loopback port");
        thread_ = std::thread([this] { server_.listen_after_bind(); });
        auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(5);
        while (!server_.is_running() && std::chrono::steady_clock::now() < deadline)
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }

    void stop()
    {
        if (thread_.joinable()) {
            server_.stop();
            thread_.join();
        }
    }

    int port() const { return port_; }
    std::string base() const { return "http://127.0.0.1:" + std::to_string(port_); }
    std::string url(const std::string &path) const { return base() + path; }

private:
    httplib::Server server_;
    int port_ = 0;
    std::thread thread_;
};
