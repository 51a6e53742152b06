// The end-to-end tests' shell list of endpoints (tests/e2e/lib.sh,
// endpoint_path) holds exactly the ids and paths of relay/endpoint_table.h.
#include <gtest/gtest.h>

#include <fstream>
#include <map>
#include <regex>
#include <sstream>
#include <string>

#include "relay/endpoint_table.h"

namespace {

TEST(EndpointTable, TheEndToEndShellListMatchesIt) {
    std::ifstream in(TOVRIN_E2E_LIB);
    ASSERT_TRUE(in) << TOVRIN_E2E_LIB;
    std::stringstream ss;
    ss << in.rdbuf();
    const std::string text = ss.str();
    // The body of endpoint_path() { case $1 in ... esac }.
    const std::size_t start = text.find("endpoint_path() {");
    ASSERT_NE(start, std::string::npos);
    const std::size_t end = text.find("esac", start);
    ASSERT_NE(end, std::string::npos);
    const std::string body = text.substr(start, end - start);

    std::map<int, std::string> shell;
    const std::regex arm(R"((-?\d+)\)\s*echo\s+(\S+)\s*;;)");
    for (auto it = std::sregex_iterator(body.begin(), body.end(), arm); it != std::sregex_iterator(); ++it)
        EXPECT_TRUE(shell.emplace(std::stoi((*it)[1]), (*it)[2]).second) << "id " << (*it)[1] << " twice";

    std::map<int, std::string> table;
    for (const tovrin_app_ep_t *ep = app_ep; ep->id != -1; ++ep) table.emplace(ep->id, ep->path);
    EXPECT_EQ(table.size(), TOVRIN_APP_EP_COUNT);
    EXPECT_EQ(shell, table);
}

}  // namespace
