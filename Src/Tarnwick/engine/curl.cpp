#include "Tarnwick/engine/curl.h"

void FollowRedirects(CURL* curl) {
    curl_easy_setopt(curl, CURLOPT_FOLLOWLOCATION, 1L);
    curl_easy_setopt(curl, CURLOPT_MAXREDIRS, 30L);
    curl_easy_setopt(curl, CURLOPT_PROTOCOLS_STR, "http,https");
    curl_easy_setopt(curl, CURLOPT_REDIR_PROTOCOLS_STR, "http,https");
}

void SetLogin(CURL* curl, const std::string& user, const std::string& password) {
    const bool any = !user.empty();
    curl_easy_setopt(curl, CURLOPT_HTTPAUTH,
                     any ? CURLAUTH_BASIC | CURLAUTH_DIGEST : CURLAUTH_BASIC);
    curl_easy_setopt(curl, CURLOPT_USERNAME, any ? user.c_str() : nullptr);
    curl_easy_setopt(curl, CURLOPT_PASSWORD, any ? password.c_str() : nullptr);
}
