// SPDX-License-Identifier: BSD-3-Clause
// The group socket: a list of sites and a walk over it.
#include <cvNetworkCompatibility/cvGroupSocket.h>

#include <cstdint>

#include <cvutil/cvOutput.h>

namespace {

NwIpv4Addr siteOf(const NwListItem* item) {
    return static_cast<NwIpv4Addr>(reinterpret_cast<std::uintptr_t>(item->data()));
}

}  // namespace

NwGroupSocket::NwGroupSocket(int newPort, unsigned char newMode, unsigned int device)
    : NwNetSocket(newPort, newMode, device) {}

NwGroupSocket::NwGroupSocket(int newPort, unsigned int addr, unsigned char newMode, unsigned int device)
    : NwNetSocket(newPort, addr, newMode, device) {}

NwGroupSocket::~NwGroupSocket() {
    NwGroupSocket::removeAllRemoteSites();
}

int NwGroupSocket::NwSend(char* buf, unsigned long len, unsigned int /*addr*/) {
    return sendToAllRemoteSites(buf, len, 0);  // meant: the destination asked for does not count
}

int NwGroupSocket::sendToAllRemoteSites(char* buf, unsigned long len, unsigned int except) {
    int result = 0;
    for (const NwListItem* item = remoteSites.first(); item; item = item->next()) {
        if (siteOf(item) != except) result = NwSocket::NwSend(buf, len, siteOf(item));
    }
    return result;
}

void NwGroupSocket::addRemoteSite(unsigned int addr) {
    if (findItem(addr)) return;
    if (!areQuietSockets()) NwInfo("NwGroupSocket adding remote site %s.\n", NwInetAddrString(addr));
    remoteSites.addToEnd(reinterpret_cast<void*>(static_cast<std::uintptr_t>(addr)));
}

void NwGroupSocket::removeRemoteSite(unsigned int addr) {
    if (NwListItem* item = findItem(addr)) remoteSites.remove(item);
}

void NwGroupSocket::removeAllRemoteSites() {
    for (NwListItem* item = remoteSites.first(); item;) {
        NwListItem* following = item->next();
        remoteSites.remove(item);
        item = following;
    }
}

const NwList& NwGroupSocket::remoteSitesList() const {
    return remoteSites;
}

NwListItem* NwGroupSocket::findItem(unsigned int addr) const {
    NwListItem* item = remoteSites.first();
    while (item && siteOf(item) != addr) item = item->next();
    return item;
}
