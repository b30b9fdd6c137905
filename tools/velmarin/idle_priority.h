// Work that gives way to everything else on the machine.
#pragma once

namespace tool {

// Puts the calling thread, and each thread that it starts afterwards, into the idle class for disks
// and on the lowest level for processors. A remark says so where the system refuses.
void become_idle();

}  // namespace tool
