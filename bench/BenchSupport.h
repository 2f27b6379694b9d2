#pragma once

#include <netinet/in.h>
#include <sys/socket.h>

#include <cstdint>
#include <cstdlib>
#include <fstream>
#include <iostream>
#include <iterator>
#include <optional>
#include <string>

#include "Ipv4.h"
#include "Numbers.h"

/// What the programs of this folder have in common.
namespace BenchSupport {

/// Ends the program with a line on standard error; for what nothing can be measured without.
[[noreturn]] inline void GiveUp(const std::string& reason) {
    std::cerr << reason << '\n';
    std::exit(EXIT_FAILURE);
}

/// A number of the command line; `what` names it when it is none.
template <typename Number>
Number Argument(const char* text, const char* what) {
    const std::optional<Number> number = Numbers::Parse<Number>(text);
    if (!number) {
        GiveUp(std::string(text) + " is no " + what);
    }
    return *number;
}

/// All bytes of a file.
inline std::string ReadFile(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    if (!file) {
        GiveUp(path + " cannot be read");
    }
    return {std::istreambuf_iterator<char>(file), {}};
}

/// A socket of that type (SOCK_STREAM, SOCK_DGRAM) on that port of every address.
inline int OpenOnPort(int type, std::uint16_t port) {
    const int descriptor = socket(AF_INET, type | SOCK_CLOEXEC, 0);
    const int on = 1;
    const sockaddr_in address = Ipv4::SocketAddress({INADDR_ANY}, port);
    if (descriptor < 0 || setsockopt(descriptor, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on) != 0 ||
        bind(descriptor, Ipv4::Generic(address), sizeof address) != 0) {
        GiveUp("port " + std::to_string(port) + " cannot be had");
    }
    return descriptor;
}

}  // namespace BenchSupport
