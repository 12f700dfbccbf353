// The handlers of an HTTP server by method and path.
#pragma once

#include <algorithm>
#include <functional>

#include "talvo/co/http_fields.h"
#include "talvo/co/task.h"
#include "talvo/http/message/http_request_head.h"

namespace talvo::http {

class incoming;

// Finds the handler of a request. A pattern is a path whose segments are literal, "{name}" for any one segment that is not
// empty, or "{name...}" at the end for the rest of the path, which may be empty. The first pattern added that fits wins. A
// handler of GET also serves HEAD.
//
// A server with a router answers 404 for a path without a pattern; 405 with Allow for one without the method; 204 with all
// methods in Allow for "OPTIONS *"; 500 after a handler that gives no answer. 400: a target that cannot be decoded, or whose
// decoded path has "." or ".." between slashes or at an end, which clients resolve, or with which a parameter would begin with
// a slash. So a handler may append a parameter to a directory. Methods match without regard to case, as names of headers do.
//
//    talvo::http::router routes;
//    routes.get("/users/{id}", [](talvo::http::incoming call) -> talvo::task<> {
//        call.respond(200, "text/plain", "user " + std::string(call.param("id")));
//        co_return;
//    });
class router {
public:
    // Answers one request.
    using handler = std::function<task<>(incoming)>;

    // Adds a handler of a method and a pattern. An invalid one is not added, and error() reports it: no handler; a method that
    // is not a token; a pattern without "/" at the front, with "{name...}" before its end, with an empty or a repeated name, or
    // with a brace elsewhere.
    router& on(std::string_view method, std::string_view pattern, handler serve) {
        route added{std::string(method), split(pattern), std::move(serve)};
        if (added.serve && CCmHttpRequestHead().SetAnyMethod(method) && is_valid(added.pattern))
            routes_.push_back(std::move(added));
        else
            error_ = make_error_code(CM_ERROR_INVALID_ARG);
        return *this;
    }
    // CM_ERROR_INVALID_ARG: a handler was not added. A server does not listen with such a router.
    std::error_code error() const noexcept { return error_; }
    // Likewise of GET.
    router& get(std::string_view pattern, handler serve) { return on("GET", pattern, std::move(serve)); }
    // Likewise of POST.
    router& post(std::string_view pattern, handler serve) { return on("POST", pattern, std::move(serve)); }
    // Likewise of PUT.
    router& put(std::string_view pattern, handler serve) { return on("PUT", pattern, std::move(serve)); }
    // Likewise of PATCH.
    router& patch(std::string_view pattern, handler serve) { return on("PATCH", pattern, std::move(serve)); }
    // Likewise of DELETE.
    router& erase(std::string_view pattern, handler serve) { return on("DELETE", pattern, std::move(serve)); }

    // The outcome of a look-up. serve is null: the server answers with status; allow: the methods of a 405.
    struct match {
        const handler* serve = nullptr;  // valid as long as the router
        int status = 404;                // of the server's answer
        std::string allow = {};          // "GET, PUT"
        fields params = {};              // of the pattern
        fields query = {};               // of the target
    };

    // target: as in the request line: "/path?query", or with "http://host" in front.
    match find(std::string_view method, std::string_view target) const {
        match found;
        if (target == "*")
            return match_server();
        const std::size_t mark = std::min(target.find('?'), target.size());
        std::vector<std::string> path = split(path_of(target.substr(0, mark)));
        auto query = fields::parse(target.substr(std::min(target.size(), mark + 1)));
        bool decoded = query.has_value();
        for (std::string& segment : path) {
            auto text = percent_decode(segment);
            decoded = decoded && text && !has_dots(*text) && !text->starts_with('/');
            segment = std::move(text).value_or("");
        }
        if (!decoded) {
            found.status = 400;
            return found;
        }
        found.query = std::move(*query);
        for (const route& each : routes_) {
            if (fits(each.pattern, path) && take(each, method, path, found))
                break;
        }
        return found;
    }

private:
    struct route {
        std::string method;
        std::vector<std::string> pattern;
        handler serve;
    };

    static std::vector<std::string> split(std::string_view path) {
        std::vector<std::string> segments;
        while (path.starts_with('/')) {
            path.remove_prefix(1);
            segments.emplace_back(path.substr(0, path.find('/')));
            path.remove_prefix(segments.back().size());
        }
        return segments;
    }

    // A decoded segment may contain slashes, but not begin with one: as a part of a path it would be absolute.
    static bool has_dots(const std::string& segment) {
        const std::string path = "/" + segment + "/";
        return path.find("/./") != path.npos || path.find("/../") != path.npos;
    }

    static std::string_view path_of(std::string_view target) {
        const std::size_t scheme = target.starts_with('/') ? target.npos : target.find("://");
        if (scheme == target.npos)
            return target;
        target.remove_prefix(scheme + 3);
        const std::size_t slash = target.find('/');
        return slash == target.npos ? "/" : target.substr(slash);
    }

    static bool is_name(const std::string& segment) { return segment.starts_with('{') && segment.ends_with('}'); }
    static bool is_rest(const std::string& segment) { return is_name(segment) && segment.ends_with("...}"); }
    static std::string name_of(const std::string& segment) {
        return segment.substr(1, segment.size() - (is_rest(segment) ? 5 : 2));
    }

    static bool is_valid(const std::vector<std::string>& pattern) {
        fields names;
        for (const std::string& segment : pattern) {
            const std::string name = is_name(segment) ? name_of(segment) : "";
            if ((is_name(segment) ? name : segment).find_first_of("{}") != std::string::npos)
                return false;
            if (!is_name(segment))
                continue;
            if (name.empty() || names.has(name) || (is_rest(segment) && &segment != &pattern.back()))
                return false;
            names.add(name, "");
        }
        return !pattern.empty();
    }

    static bool fits(const std::vector<std::string>& pattern, const std::vector<std::string>& path) {
        const bool rest = !pattern.empty() && is_rest(pattern.back());
        const std::size_t fixed = pattern.size() - rest;
        if (path.empty() || (rest ? path.size() < fixed : path.size() != fixed))
            return false;
        for (std::size_t i = 0; i < fixed; ++i) {
            if (is_name(pattern[i]) ? path[i].empty() : pattern[i] != path[i])
                return false;
        }
        return true;
    }

    static bool same_method(std::string_view one, std::string_view other) {
        const auto lower = [](char c) { return c >= 'A' && c <= 'Z' ? char(c - 'A' + 'a') : c; };
        return std::ranges::equal(one, other, {}, lower, lower);
    }

    static bool take(const route& each, std::string_view method, const std::vector<std::string>& path, match& found) {
        if (!same_method(each.method, method) && !(same_method(each.method, "GET") && same_method(method, "HEAD"))) {
            found.status = 405;
            allow(each, found);
            return false;
        }
        found.serve = &each.serve;
        for (std::size_t i = 0; i < each.pattern.size(); ++i) {
            const std::string& segment = each.pattern[i];
            if (!is_name(segment))
                continue;
            std::string value = is_rest(segment) ? join(path, i) : path[i];
            if (value.starts_with('/')) {
                found.serve = nullptr;
                found.status = 400;
                return true;
            }
            found.params.add(name_of(segment), std::move(value));
        }
        return true;
    }

    // The target "*", which is the server and comes with OPTIONS only.
    match match_server() const {
        match found;
        found.status = 204;
        for (const route& each : routes_)
            allow(each, found);
        allow("OPTIONS", found);
        return found;
    }

    static void allow(const route& each, match& found) {
        allow(each.method, found);
        if (same_method(each.method, "GET"))
            allow("HEAD", found);
    }

    static void allow(const std::string& method, match& found) {
        if ((", " + found.allow + ",").find(", " + method + ",") == std::string::npos)
            found.allow += (found.allow.empty() ? "" : ", ") + method;
    }

    static std::string join(const std::vector<std::string>& path, std::size_t from) {
        std::string rest;
        for (std::size_t i = from; i < path.size(); ++i)
            rest += (i > from ? "/" : "") + path[i];
        return rest;
    }

    std::vector<route> routes_;
    std::error_code error_;
};

}  // namespace talvo::http
