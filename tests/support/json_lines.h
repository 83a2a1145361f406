// SPDX-License-Identifier: BSD-3-Clause
// JSON lines as the tool and the server print them.
#ifndef CVNC_TESTS_JSON_LINES_H
#define CVNC_TESTS_JSON_LINES_H

#include <nlohmann/json.hpp>
#include <string>
#include <vector>

// Every line of text as JSON; a line that is none fails the test. One without its end is still being written,
// and left out.
std::vector<nlohmann::json> jsonLines(const std::string& text);

#endif
