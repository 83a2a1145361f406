// SPDX-License-Identifier: BSD-3-Clause
// UDP by unicast to a list of sites, where neither broadcast nor multicast gets through.
#ifndef CVNETWORKCOMPATIBILITY_CVGROUPSOCKET_H
#define CVNETWORKCOMPATIBILITY_CVGROUPSOCKET_H

#include <cvNetworkCompatibility/cvExport.h>
#include <cvNetworkCompatibility/cvNetSocket.h>
#include <cvutil/cvList.h>

// A UDP socket that sends every packet to each site of a list.
//
//     NwGroupSocket socket(3000, 0x0A140001u, (unsigned char)3, 0u);   // receives as NwNetSocket does
//     socket.addRemoteSite(0x0A140002u);                               // 10.20.0.2
//     socket.addRemoteSite(0x0A1E0005u);                               // 10.30.0.5
//     socket.NwSend(pdu, 144, NwUSE_DEFAULT_IP_ADDR);                  // to both
//
// Sites are IPv4 addresses in host byte order, kept in the order in which they were added, each at most
// once. With bundling on, each site has a bundle of its own. Use sendTo for a packet to one destination.
// Receiving is that of NwNetSocket. One thread uses a socket at a time.
class CVNC_API NwGroupSocket : public NwNetSocket {
public:
    // As NwNetSocket's, with an empty list.
    NwGroupSocket(int port, unsigned char mode, unsigned int device);
    NwGroupSocket(int port, unsigned int addr, unsigned char mode, unsigned int device);
    // Empties the list, then ends as NwNetSocket does: pending bundles still leave for their sites.
    ~NwGroupSocket() override;

    // sendToAllRemoteSites(buf, len, 0): to every site; addr is ignored. A site with address 0 is skipped.
    int NwSend(char* buf, unsigned long len, unsigned int addr) override;

    // --- added after NwNetSocket's virtual operations, in this order ---

    virtual void removeAllRemoteSites();
    // Appends a site, after "NwGroupSocket adding remote site %s.\n" on NwInfo (unless sockets are quiet);
    // does nothing when it is in the list.
    virtual void addRemoteSite(unsigned int addr);
    // Removes it, if it is there.
    virtual void removeRemoteSite(unsigned int addr);
    // Sends to each site but `except`, in order, as NwSocket::NwSend does: at once, or through the site's
    // bundle. One site's failure does not stop the others, unless a bundle's flush fails: that stops where
    // it is, and -1 for one packet can mean that several bundles wait. Returns the last result, 0 for none.
    virtual int sendToAllRemoteSites(char* buf, unsigned long len, unsigned int except);
    // The list, to be walked: each item's data pointer carries the address itself. Valid until it changes.
    virtual const NwList& remoteSitesList() const;

    // The item of a site, or null.
    NwListItem* findItem(unsigned int addr) const;

protected:
    NwList remoteSites;
};

#endif
