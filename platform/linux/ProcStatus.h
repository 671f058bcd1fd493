// Fields of the kernel's status-like text files (/proc/PID/status,
// /proc/self/fdinfo/FD): "Name:\tvalue" lines. Pure text work, so the
// parsing can be tested and fuzzed without a process to read.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace platform {

// The text after "Field:" on its own line; nothing when no line has it.
std::optional<std::string> procStatusField(const std::string& text, const std::string& field);

// The "Pid:" of a pidfd's fdinfo: -1 once the process has exited.
std::optional<long> procStatusPid(const std::string& text);

// The "Groups:" of a process's status: the IDs it lists, in order.
std::optional<std::vector<std::uint32_t>> procStatusGroups(const std::string& text);

}  // namespace platform
