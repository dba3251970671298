// What every use of libcurl in the worker needs, also outside the engine.
#pragma once

#include <curl/curl.h>

#include <cstddef>
#include <string>

#include "TaskMan/tasktext.h"

// What an answer says when memory runs out.
constexpr const char* NO_MEMORY = "not enough memory for the transfer";

// Follows redirects, at most 30. The first address and all others are http or https only: libcurl
// refuses any other before it connects.
void FollowRedirects(CURL* curl);

// Logs in, when `user` is not empty, as the server asks for it: basic or digest (RFC 7617, 7616).
// libcurl asks without the login first and answers the challenge by itself. It does neither for
// another scheme, host or port that a redirect leads to. Without a user: no login.
void SetLogin(CURL* curl, const std::string& user, const std::string& password);

// Whom to trust in TLS, and as whom to appear: what the request says of it.
void SetTls(CURL* curl, const tagTaskRequest& request);

// What write callbacks return to abort a transfer (CURLOPT_WRITEFUNCTION).
constexpr std::size_t kBreakOff = static_cast<std::size_t>(-1);

// Calls `step` and returns its result, or `failed` after an exception: none may pass through
// libcurl, which calls the caller.
template <class Result, class Step>
Result KeepExceptions(Result failed, Step step) noexcept {
    try {
        return step();
    } catch (...) {
        return failed;
    }
}
