// A real HTTP (or, with httplib::SSLServer, HTTPS) server on 127.0.0.1 for
// tests and benchmarks: register handlers on server(), call start(), build
// URLs with url(). It binds a free loopback port (or the one given) and stops
// itself when it goes out of scope.
#pragma once

#include <httplib.h>

#include <stdexcept>
#include <string>
#include <utility>

#include "client_helpers.h"

template <class Server> class BasicLocalServer {
public:
    template <class... Args> explicit BasicLocalServer(Args &&...args) : server_(std::forward<Args>(args)...) {}
    BasicLocalServer(const BasicLocalServer &) = delete;
    BasicLocalServer &operator=(const BasicLocalServer &) = delete;
    ~BasicLocalServer() { stop(); }

    Server &server() { return server_; }

    void start(int port = 0)
    {
        port_ = port == 0 ? server_.bind_to_any_port("127.0.0.1") : server_.bind_to_port("127.0.0.1", port) ? port : -1;
        if (port_ <= 0)
            throw std::runtime_error("cannot bind a loopback port");
        thread_ = std::thread([this] { server_.listen_after_bind(); });
        wait_until([this] { return server_.is_running(); }, std::chrono::seconds(5), std::chrono::milliseconds(1));
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
    Server server_;
    int port_ = 0;
    std::thread thread_;
};
using LocalServer = BasicLocalServer<httplib::Server>;
