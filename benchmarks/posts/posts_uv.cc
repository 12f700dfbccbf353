// Posts to threads that run libuv loops.
#include "benchmarks/posts/posts.h"
#include "benchmarks/support/uv_loop.h"

int main() {
    bench::CUvLoop near(1), far(0);
    bench::RunPosts(near, far);
    return 0;
}
