#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace inspect {

/// What a regular file holds. Nothing, with errno set, when it cannot be read: EINVAL when it is no
/// regular file, EFBIG above 16 MiB. Waits for no pipe and touches no device.
std::optional<std::string> ReadFile(const std::string& name);

/// The lines of a text, without their ends; they lie in `text`. A last line needs no end.
std::vector<std::string_view> Lines(std::string_view text);

/// The name of a file after all links in it, or the name as it is where there is nothing.
std::string RealName(const std::string& name);

/// `text` with everything but printable ASCII as \xNN. What files hold must not command a terminal.
std::string Printable(std::string_view text);

/// How others than root can change what `name`, a file without links in its path, holds, or put
/// another file in its place: "it has the mode 0666", "it belongs to account 1000"; empty when they
/// cannot. With `own_account` this process's account is none of the others.
std::string WritableBy(const std::string& name, bool own_account);

}  // namespace inspect
