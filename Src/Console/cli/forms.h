// The command lines of the verbs, as tables.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "Console/cli/arguments.h"
#include "Console/cli/options.h"

// The forms of `taskman get` and `taskman info`, which store into the command; it outlives them.
VerbForm GetForm(Command& command);
VerbForm InfoForm(Command& command);

// Rows of both, which store into what all requests of the command have in common: headers and
// logins; certificates.
std::vector<Option> LoginRows(tagTaskRequest& request);
std::vector<Option> TrustRows(tagTaskRequest& request);

// Adds the authorities that the environment names, CURL_CA_BUNDLE before SSL_CERT_FILE, unless the
// options have said whom to trust. Returns what is wrong with the whole, in one line.
std::string CompleteRequest(tagTaskRequest& request);

// One more text for which `fault` finds nothing wrong.
Setter More(std::vector<std::string>& texts, std::string (*fault)(std::string_view));

std::string IdFault(std::string_view id);
