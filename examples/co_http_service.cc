// An HTTP service with JSON bodies:   co_http_service [ADDRESS]
//
//    curl -d '{"text": "some words"}' http://127.0.0.1:8080/notes      stores a note and answers with its number
//    curl http://127.0.0.1:8080/notes/1                                answers with the note
#include <cstdio>
#include <map>
#include <nlohmann/json.hpp>

#include "talvo/co.h"

namespace http = talvo::http;
using nlohmann::json;
using notes = std::map<std::string, json>;

talvo::task<> add(notes& all, http::incoming call) {
    const auto body = co_await call.body();
    const json note = json::parse(body ? *body : "", nullptr, false);  // no exceptions
    if (!note.is_object() || !note.contains("text")) {
        call.respond(400, "application/json", R"({"error": "not an object with a text"})");
        co_return;
    }
    const std::string number = std::to_string(all.size() + 1);
    all[number] = note;
    call.set_header("Location", "/notes/" + number);
    call.respond(201, "application/json", json{{"number", number}}.dump());
}

talvo::task<> show(const notes& all, http::incoming call) {
    const auto found = all.find(std::string(call.param("number")));
    if (found == all.end())
        call.respond(404, "application/json", R"({"error": "no such note"})");
    else
        call.respond(200, "application/json", found->second.dump());
    co_return;
}

int main(int argc, char** argv) {
    talvo::application app;
    notes all;
    http::router routes;
    routes.post("/notes", [&](http::incoming call) { return add(all, std::move(call)); });
    routes.get("/notes/{number}", [&](http::incoming call) { return show(all, std::move(call)); });
    if (const auto bound = app.listen(argc > 1 ? argv[1] : "127.0.0.1:8080", std::move(routes)))
        std::printf("listening on %s\n", bound->to_string().c_str());
    std::fflush(stdout);
    return app.run_until_signal();
}
