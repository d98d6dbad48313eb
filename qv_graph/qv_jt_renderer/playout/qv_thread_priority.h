// Real-time scheduling for the render thread. The board's slots come every
// 16-20 ms whatever else the machine does; under normal scheduling a busy
// machine can keep the render thread off the CPU for longer than the buffers
// queued ahead cover.
#pragma once

// Puts the calling thread into the round-robin real-time class at a moderate
// priority (above normal threads, below the kernel's own real-time threads).
// Where the system does not permit it the thread keeps its normal priority and
// one line says so, once per process. Returns whether real-time scheduling is on.
bool qv_make_thread_realtime();
