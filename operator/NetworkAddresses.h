// The host's IPv4 interface addresses and their broadcast addresses, for
// the network side that announces itself on the local networks.
#pragma once

// Fills addrs[i] and bcasts[i] with the dotted address and broadcast
// address of every listed interface except the loopback address
// "127.0.0.1", in the order the system lists them, and returns their
// number. The count is not limited: callers pass arrays with room for 64
// entries. When no address is found, bcasts[0] becomes "255.255.255.255"
// and the result is 0.
unsigned short GetNowIPAddr_And_BroadCastAddr(char (*addrs)[32], char (*bcasts)[32]);
