// SPDX-License-Identifier: BSD-3-Clause
// One JSON object on one line, as --json promises.
#ifndef CVNET_JSON_LINE_H
#define CVNET_JSON_LINE_H

#include <string>

#include <nlohmann/json.hpp>

namespace cvnet {

/// Foreign text that is no UTF-8 (a file or interface name) is replaced, never an error. ASCII only, so that
/// no control character reaches a terminal.
inline std::string jsonLine(const nlohmann::ordered_json& json) {
    return json.dump(-1, ' ', true, nlohmann::ordered_json::error_handler_t::replace);
}

}  // namespace cvnet

#endif
