// Posts to threads that run Asio contexts.
#include "benchmarks/posts/posts.h"
#include "benchmarks/support/asio_loop.h"

int main() {
    bench::CAsioLoop near(1), far(0);
    bench::RunPosts(near, far);
    return 0;
}
