// SPDX-License-Identifier: BSD-3-Clause
#include "messages.h"

#include <cvNetworkCompatibility/cvSocket.h>

#include <cstring>

Messages::Messages()
    : myOldInfo(NwInfo.rdbuf(&myInfo)),
      myOldWarn(NwWarn.rdbuf(&myWarn)),
      myOldVerbose(NwVerbose.rdbuf(&myVerbose)),
      myOldDebug(NwDebug.rdbuf(&myDebug)),
      myOldLevel(NwGetOutputLevel()) {
    NwSetOutputLevel(NwOutputDebug);
}

Messages::~Messages() {
    NwSetOutputLevel(myOldLevel);
    NwInfo.rdbuf(myOldInfo);
    NwWarn.rdbuf(myOldWarn);
    NwVerbose.rdbuf(myOldVerbose);
    NwDebug.rdbuf(myOldDebug);
}

std::string Messages::take(std::stringbuf& buffer) {
    const std::string text = buffer.str();
    buffer.str(std::string());
    return text;
}

Quiet::Quiet() {
    NwSocket::setQuietSockets(true);
}

Quiet::~Quiet() {
    NwSocket::setQuietSockets(false);
}

std::string systemReport(const std::string& text, int error) {
    return text + ": " + std::strerror(error) + "\n";
}
