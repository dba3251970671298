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

void SetTls(CURL* curl, const tagTaskRequest& request) {
    if (!request.strCaFile.empty()) {
        curl_easy_setopt(curl, CURLOPT_CAINFO, request.strCaFile.c_str());
        curl_easy_setopt(curl, CURLOPT_CAPATH, nullptr);  // libcurl's own would be trusted as well
    }
    if (!request.strCertFile.empty()) {
        const bool apart = !request.strKeyFile.empty();
        curl_easy_setopt(curl, CURLOPT_SSLCERT, request.strCertFile.c_str());
        curl_easy_setopt(curl, CURLOPT_SSLKEY, apart ? request.strKeyFile.c_str() : nullptr);
        // Without one OpenSSL asks for it on the terminal, and waits.
        curl_easy_setopt(curl, CURLOPT_KEYPASSWD, "");
    }
    if (!request.bInsecure) return;
    curl_easy_setopt(curl, CURLOPT_SSL_VERIFYPEER, 0L);
    curl_easy_setopt(curl, CURLOPT_SSL_VERIFYHOST, 0L);
}
