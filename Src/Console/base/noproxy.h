// The list of hosts for which the environment asks for no proxy (no_proxy).
#pragma once

#include <string>
#include <string_view>

// Whether the list exempts the host of an address that has no AddressFault. Entries, between commas
// or blanks, are
//   *               every host
//   NAME            the host, and all hosts of that domain; a dot may stand before or behind it
//   NUMBER          the host with that IPv4 or IPv6 address, however the address writes it
//   NUMBER/BITS     the hosts whose addresses begin with the same bits (CIDR, RFC 4632)
// each of them with ":PORT" for that port only; an IPv6 address stands in brackets then. A host
// that is given by its name is not looked up.
bool IsExempt(std::string_view list, std::string_view address);
