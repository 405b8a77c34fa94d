#pragma once

#include <functional>
#include <optional>
#include <string>

/// Gives this process, and those that it will start, a network with nothing in it but a loopback
/// interface, and a view of the file system of its own to change. False when that takes more rights
/// than the process has.
bool EnterPrivateNetwork();

/// Runs `body` in a child process that has a network of its own, with nothing in it but a loopback
/// interface, and gives what it returned (or the text of the exception that ended it). The child
/// may change the network's settings and its view of the file system. Nothing if the system does
/// not permit such a child; the caller then skips its test.
std::optional<std::string> InPrivateNetwork(const std::function<std::string()>& body);
