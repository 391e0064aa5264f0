// Memory profile of the process.
#pragma once

// Readies the profile; does nothing costly.
void mp_enable();

// The memory lines of /proc/self/status, then the allocator's own report (malloc_info(3)). The caller frees
// the text with free(); null when there is no memory for it.
char* mp_output();
