// Threads that run libuv loops.
#include "benchmarks/support/uv_loop.h"
#include "benchmarks/threads/threads.h"

int main() { return bench::RunThreads<bench::CUvLoop>(); }
