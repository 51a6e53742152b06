#pragma once
// Local application endpoints for tovrinctl, read from the tree's one table
// (relay/endpoint_table.h).
#include <array>
#include <cstddef>
#include <cstdint>
#include <string_view>

#include "relay/endpoint_table.h"

namespace tovrinctl {

// The endpoint path of id, or an empty view when id is not in the table.
constexpr std::string_view endpoint_path(int32_t id) {
    const tovrin_app_ep_t *ep = tovrin_app_ep_find(id);
    return ep != nullptr ? std::string_view(ep->path) : std::string_view();
}

// The known ids, separated by spaces, for usage and error lines; made at
// compile time (the ids are positive).
inline constexpr std::array<char, 12 * TOVRIN_APP_EP_COUNT> ENDPOINT_IDS = [] {
    std::array<char, 12 * TOVRIN_APP_EP_COUNT> s{};
    std::size_t n = 0;
    for (std::size_t i = 0; i < TOVRIN_APP_EP_COUNT; ++i) {
        if (i != 0) s[n++] = ' ';
        char digits[10]{};
        std::size_t k = 0;
        for (uint32_t v = uint32_t(app_ep[i].id); v != 0 || k == 0; v /= 10) digits[k++] = char('0' + v % 10);
        while (k != 0) s[n++] = digits[--k];
    }
    return s;
}();
inline const char *endpoint_ids() { return ENDPOINT_IDS.data(); }

}  // namespace tovrinctl
