#pragma once
// Local application endpoints for tovrinctl, read from the tree's one table
// (relay/endpoint_table.h).
#include <cstdint>
#include <string>
#include <string_view>

#include "relay/endpoint_table.h"

namespace tovrinctl {

// The endpoint path of id, or an empty view when id is not in the table.
constexpr std::string_view endpoint_path(int32_t id) {
    const tovrin_app_ep_t *ep = tovrin_app_ep_find(id);
    return ep != nullptr ? std::string_view(ep->path) : std::string_view();
}

// The known ids, separated by spaces, for usage and error lines.
inline std::string endpoint_ids() {
    std::string s;
    for (const tovrin_app_ep_t *ep = app_ep; ep->id != -1; ++ep) s += (s.empty() ? "" : " ") + std::to_string(ep->id);
    return s;
}

}  // namespace tovrinctl
