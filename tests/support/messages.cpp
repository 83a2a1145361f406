// SPDX-License-Identifier: BSD-3-Clause
#include "messages.h"

#include <cvNetworkCompatibility/cvSocket.h>

#include <cstring>
#include <utility>

std::string TextBuffer::take() {
    const std::lock_guard<std::mutex> lock(myMutex);
    std::string text;
    text.swap(myText);
    return text;
}

TextBuffer::int_type TextBuffer::overflow(int_type c) {
    if (traits_type::eq_int_type(c, traits_type::eof())) return traits_type::not_eof(c);
    const char letter = traits_type::to_char_type(c);
    xsputn(&letter, 1);
    return c;
}

std::streamsize TextBuffer::xsputn(const char* text, std::streamsize length) {
    const std::lock_guard<std::mutex> lock(myMutex);
    myText.append(text, static_cast<std::size_t>(length));
    return length;
}

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

FlushedWarnings::FlushedWarnings() : myOld(NwWarn.rdbuf(this)) {}

FlushedWarnings::~FlushedWarnings() {
    NwWarn.rdbuf(myOld);
}

std::vector<std::string> FlushedWarnings::take() {
    if (!myText.empty()) myFlushed.push_back("not flushed: " + std::exchange(myText, std::string()));
    return std::exchange(myFlushed, {});
}

FlushedWarnings::int_type FlushedWarnings::overflow(int_type c) {
    if (!traits_type::eq_int_type(c, traits_type::eof())) myText += traits_type::to_char_type(c);
    return traits_type::not_eof(c);
}

std::streamsize FlushedWarnings::xsputn(const char* text, std::streamsize length) {
    myText.append(text, static_cast<std::size_t>(length));
    return length;
}

int FlushedWarnings::sync() {
    myFlushed.push_back(std::exchange(myText, std::string()));
    return 0;
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
