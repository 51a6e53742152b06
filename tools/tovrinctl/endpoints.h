#pragma once
// Local application endpoints: id -> IPC endpoint path. The daemon keeps its
// own copy of this table; the two must list the same ids and paths.
#include <array>
#include <cstdint>
#include <string>
#include <string_view>

namespace tovrinctl {

struct endpoint_t {
    int32_t id;
    std::string_view path;
};

inline constexpr std::array<endpoint_t, 7> ENDPOINTS{{
    {101, "/vk/ipc/gelvar"},
    {102, "/vk/ipc/hostun"},
    {105, "/vk/ipc/prindal"},
    {106, "/vk/ipc/quelon"},
    {107, "/vk/ipc/rastim"},
    {108, "/vk/ipc/sorvek"},
    {109, "/vk/ipc/tumbel"},
}};

// The endpoint path of id, or an empty view when id is not in the table.
constexpr std::string_view endpoint_path(int32_t id)
{
    for (const endpoint_t &e : ENDPOINTS)
        if (e.id == id)
            return e.path;
    return {};
}

// The known ids, separated by spaces, for usage and error lines.
inline std::string endpoint_ids()
{
    std::string s;
    for (const endpoint_t &e : ENDPOINTS)
        s += (s.empty() ? "" : " ") + std::to_string(e.id);
    return s;
}

}  // namespace tovrinctl
