// How a host process sets up its memory before it does anything else.
#pragma once

namespace Curvana::HostKit {

// Called first in main, with main's argv. Two settings of the C library that
// pay for photographs of hundreds of megabytes:
// - one malloc arena: pixel blocks are decoded, filled and encoded on
//   different threads, and per-thread arenas would each keep what the others
//   freed, growing resident memory well past the cache budget;
// - transparent huge pages behind large blocks, where the kernel gives them
//   only on request: in 4 KiB pages every first touch of a decoded block, an
//   upload or read-back buffer or the driver's texture is a page fault, about
//   a third of a whole run's processor time. glibc reads that setting only at
//   start-up, so the process starts itself again, once, with it set; a
//   setting the user made is kept, and when the restart fails the process
//   runs on with ordinary pages;
// - pixel blocks and tiles from a heap that grows in 64 MiB steps, so that
//   glibc asks for huge pages behind each step, and that keeps what is freed
//   for the next blocks.
// Sanitizer builds keep their own allocator and are not restarted.
void setUpProcessMemory(char** argv);

}  // namespace Curvana::HostKit
