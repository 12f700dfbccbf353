// Fetches a page and all pages of the same site that it reaches, at most 100 at a time:   co_crawler http://HOST[:PORT]/
// [PAGES]
#include <cstdio>
#include <cstdlib>
#include <set>

#include "talvo/co.h"

using namespace std::chrono_literals;

struct crawl {
    std::string site;  // "http://host:port"
    std::size_t most;
    std::set<std::string> seen{};
    std::size_t bytes = 0, failures = 0;
    talvo::task_group pages{};
};

talvo::task<> visit(crawl& all, std::string path);

// Starts a visit of each new path in a page.
talvo::task<> follow(crawl& all, std::string page) {
    for (std::size_t at = 0; (at = page.find("href=\"/", at)) != page.npos; ++at) {
        const std::string path = page.substr(at + 6, page.find('"', at + 6) - at - 6);
        if (all.seen.size() < all.most && all.seen.insert(path).second)
            all.pages.spawn(visit(all, path));
    }
    co_return;
}

talvo::task<> visit(crawl& all, std::string path) {
    const auto page = co_await talvo::with_timeout(30s, talvo::http::get(all.site + path));
    if (!page || !page->ok()) {
        ++all.failures;
        co_return;
    }
    all.bytes += page->body().size();
    co_await follow(all, page->body());
}

talvo::task<int> run(std::string url, std::size_t most) {
    CCmHttpPoolLimits limits;
    limits.m_dwMaxPerHost = 100;  // further requests wait for a connection
    CCmChannelManager::Instance()->SetHttpPoolLimits(limits);
    const std::size_t slash = url.find('/', url.find("://") + 3);
    crawl all{url.substr(0, slash), most};
    all.seen.insert("/");
    all.pages.spawn(visit(all, "/"));
    co_await all.pages.all();
    std::printf("%zu pages, %zu bytes, %zu failures\n", all.seen.size(), all.bytes, all.failures);
    co_return all.failures == 0 ? 0 : 1;
}

int main(int argc, char** argv) {
    talvo::application app;
    return app.run(run(argc > 1 ? argv[1] : "http://127.0.0.1/", argc > 2 ? std::strtoul(argv[2], nullptr, 10) : 1000));
}
