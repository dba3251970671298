// For destructors that wipe their record.
#pragma once

// Keeps the stores into `record` that precede the call. Without it a compiler drops what a
// destructor writes, since nothing can read it afterwards.
inline void KeepStores(void* record) {
    asm volatile("" : : "r"(record) : "memory");
}
