// An update server on loopback that answers each connection with the next of its
// scripted replies and keeps the requests.
// Threads: Requests may be called while the server runs.
#pragma once

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <cstdlib>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "frame/unique_fd.h"

// A response with the status 200 around a body.
inline std::string Ok(const std::string& body) {
    return "HTTP/1.1 200 OK\r\nContent-Length: " + std::to_string(body.size()) + "\r\n\r\n" + body;
}

class ReplyServer {
  public:
    explicit ReplyServer(std::vector<std::string> replies)
        : listener_(socket(AF_INET, SOCK_STREAM, 0)) {
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t size = sizeof(address);
        auto* generic = reinterpret_cast<sockaddr*>(&address);
        if (bind(listener_.get(), generic, size) != 0 || listen(listener_.get(), 8) != 0 ||
            getsockname(listener_.get(), generic, &size) != 0) {
            abort();
        }
        port_ = ntohs(address.sin_port);
        thread_ = std::thread([this, scripted = std::move(replies)] {
            for (const std::string& reply : scripted) Answer(reply);
        });
    }
    ~ReplyServer() {
        (void)shutdown(listener_.get(), SHUT_RDWR);  // wakes accept
        thread_.join();
    }

    uint16_t port() const { return port_; }
    std::vector<std::string> Requests() {
        const std::lock_guard guard(lock_);
        return requests_;
    }

  private:
    void Answer(const std::string& reply) {
        const UniqueFd fd(accept(listener_.get(), nullptr, nullptr));
        // One send of the client, which loopback keeps in one piece.
        char request[8192];
        const ssize_t size = recv(fd.get(), request, sizeof(request), 0);
        if (size <= 0) return;
        {
            const std::lock_guard guard(lock_);
            requests_.emplace_back(request, static_cast<size_t>(size));
        }
        (void)send(fd.get(), reply.data(), reply.size(), MSG_NOSIGNAL);
    }

    UniqueFd listener_;
    uint16_t port_ = 0;
    std::mutex lock_;
    std::vector<std::string> requests_;
    std::thread thread_;
};
