// Gives way to all other work on the machine.
#pragma once

namespace tool {

// Puts the calling thread, and every thread that it starts afterwards, into the idle class for
// disks and at the lowest processor priority. Prints a message if the system refuses.
void become_idle();

}  // namespace tool
