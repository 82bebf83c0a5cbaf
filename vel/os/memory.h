// Pages and named memory shared between processes.
#pragma once

#include <vel/types.h>

namespace vel::os {

uint64_t page_size();

/// Fresh zeroed pages, rounded up; `size` 0 gives 87. Errors: 8, 87.
uint32_t allocate_pages(uint64_t size, void*& address);

/// Size of a region from `allocate_pages`, rounded to pages; 87 for an unknown address.
uint32_t pages_size(const void* address, uint64_t& size);
uint32_t free_pages(void* address);

/// Opens the named block, or creates it zeroed; any user may open it. It vanishes with its last opener, however that
/// one ended. `size` is what to create; the block that is there keeps its own. Maps the whole of it read-write; the
/// view ends with the handle's last share. Whatever it holds is untrusted: any process may write it.
/// Errors: 4, 5, 8, 87 (nothing there and `size` 0), 112, 170 (somebody holds on to the name) and other system codes.
uint32_t open_mapping(const char* name, uint64_t size, void*& mapping, void*& address, uint64_t& mapped_size);

} // namespace vel::os
