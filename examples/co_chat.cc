// A chat: what a client sends goes to all others, as coroutines:   co_chat [ADDRESS]
//
// A client that does not read gets no more than 100 messages behind; then it is disconnected, and the others notice nothing.
#include <cstdio>
#include <memory>
#include <set>

#include "talvo/co.h"

struct member {
    explicit member(talvo::connection own) : peer(std::move(own)) { room.insert(this); }
    ~member() { room.erase(this); }
    talvo::connection peer;
    talvo::task_group sends;  // before peer in the order of destruction
    static inline std::set<member*> room;
};

talvo::task<> deliver(talvo::connection& to, std::shared_ptr<const std::string> text) { co_await to.send(*text); }

talvo::task<> chat(talvo::connection peer) {
    member self(std::move(peer));
    while (auto message = co_await self.peer.receive()) {
        const auto text = std::make_shared<const std::string>(message->str());
        for (member* other : member::room) {
            if (other == &self)
                continue;
            if (other->sends.size() < 100)
                other->sends.spawn(deliver(other->peer, text));
            else
                other->peer.close();
        }
    }
}

int main(int argc, char** argv) {
    talvo::application app;
    if (const auto bound = app.listen(argc > 1 ? argv[1] : "[::]:7000", talvo::tcp, chat))
        std::printf("listening on %s\n", bound->to_string().c_str());
    std::fflush(stdout);
    return app.run_until_signal();
}
