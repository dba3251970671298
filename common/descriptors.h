// Descriptors on their way from one process to another, over stream sockets of one machine.
//
// Nothing here keeps state; any thread may call.
#pragma once

#include <sys/types.h>

#include <string_view>
#include <vector>

#include "common/file.h"

constexpr std::size_t DESCRIPTORS_MOST = 8;  // with one text

// Sends the text, without waiting, with copies of at most DESCRIPTORS_MOST descriptors. Returns the
// number of bytes that were sent; or -1 with errno set, nothing was sent then.
ssize_t SendWith(int socket, std::string_view text, const std::vector<int>& descriptors);

// Receives at most `size` bytes, without waiting, and the descriptors that were sent with them.
// Returns like recv.
ssize_t ReceiveWith(int socket, char* buffer, std::size_t size,
                    std::vector<Descriptor>& descriptors);
