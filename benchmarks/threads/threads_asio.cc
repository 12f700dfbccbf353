// Threads that run Asio contexts.
#include "benchmarks/support/asio_loop.h"
#include "benchmarks/threads/threads.h"

int main() { return bench::RunThreads<bench::CAsioLoop>(); }
