// An update server on loopback that answers each connection with the next of its
// scripted replies and keeps the requests.
#pragma once

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <cstdlib>
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
        sockaddr_in address{AF_INET, 0, {htonl(INADDR_LOOPBACK)}, {}};
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
    ~ReplyServer() { Finish(); }

    uint16_t port() const { return port_; }
    // What was sent to the server, whose work this ends.
    std::string Finish() {
        (void)shutdown(listener_.get(), SHUT_RDWR);  // wakes accept
        if (thread_.joinable()) thread_.join();
        return requests_;
    }

  private:
    void Answer(const std::string& reply) {
        const UniqueFd fd(accept(listener_.get(), nullptr, nullptr));
        // One send of the client, which loopback keeps in one piece.
        char request[8192];
        const ssize_t size = recv(fd.get(), request, sizeof(request), 0);
        if (size <= 0) return;
        requests_.append(request, static_cast<size_t>(size));
        (void)send(fd.get(), reply.data(), reply.size(), MSG_NOSIGNAL);
    }

    UniqueFd listener_;
    uint16_t port_ = 0;
    std::string requests_;
    std::thread thread_;
};
