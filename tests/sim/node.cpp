// Node information of the simulated access point.
#include <algorithm>
#include <cstring>
#include <utility>

#include "platform/node.h"
#include "tests/sim/world.h"

namespace sim {

// Handed out as set, so a test can also feed the daemon malformed text.
void node_set_mac(std::optional<std::string> text) { world().mac = std::move(text); }

void node_set_serial(const std::string &serial) { world().serial = serial; }

}  // namespace sim

// As the real service: a buffer too small for twelve digits and a NUL is
// refused, longer text is cut to the buffer.
static constexpr int kMacTextSize = 13;

int vk_get_node_vap_mac(int, char *buf, int size) {
    const auto &mac = sim::world().mac;
    if (!mac || !buf || size < kMacTextSize) return -1;
    const std::size_t n = std::min(mac->size(), static_cast<std::size_t>(size - 1));
    std::memcpy(buf, mac->data(), n);
    buf[n] = '\0';
    return 0;
}

int vk_get_node_serial_num(char *buf, int size) {
    if (!buf || size <= 0) return -1;
    const std::string &serial = sim::world().serial;
    std::memset(buf, 0, static_cast<std::size_t>(size));
    std::memcpy(buf, serial.data(), std::min(serial.size(), static_cast<std::size_t>(size)));
    return 0;
}
