// Command lines as tables: a row for each option, and one parser for all of them.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

// Stores the value that was given. Returns why it cannot be stored, in one line; empty when it is.
// What it stores to outlives the parsing.
using Setter = std::function<std::string(const std::string& value)>;

// An option, or an argument without a dash.
struct Option {
    const char* names;  // "-j,--jobs", "--tries"; of an argument: "URL"
    const char* value;  // what the help calls the value; empty: an option that takes none, or an
                        // argument that is given once. With "..." at its end the option, or the
                        // argument, may be repeated; "[=NAME]": may be left out
    const char* help;   // lines of at most 51 columns, with "\n" between them
    Setter set;         // called each time it is given; with an empty text when it has no value
    const char* excludes = nullptr;  // last name of an option that it cannot be given with
};

// The command line of a verb.
struct VerbForm {
    const char* usage;     // what stands behind "taskman"
    const char* examples;  // the beginning of the help
    const char* exits;     // its end; may be empty
    std::vector<Option> options;
    // What is wrong with the options together, in one line; empty when nothing is.
    std::function<std::string()> check = [] { return ""; };
};

// The text of --help.
std::string HelpText(const VerbForm& form);

// Reads the arguments behind the verb: "--name value", "--name=value", "-n value", "-nvalue", and
// "-abc" for options without values; a value that may be left out stands behind "=" only; after
// "--" nothing is an option. Names are not abbreviated. Returns what is wrong in one line, with
// bytes of the arguments as they are; empty when all of it is stored, or when `help` was set: then
// nothing else counts.
std::string ParseArguments(const VerbForm& form, const std::vector<std::string>& arguments,
                           bool& help);

// ---- Setters.

// What an option without a value stands for.
template <class Value>
Setter Set(Value& target, Value value) {
    return [&target, value](const std::string&) {
        target = value;
        return "";
    };
}

// Why the text cannot be the value of an option, in one line; empty when it can. An empty text, as
// of a variable that is not set, would pass for an option that was not given.
std::string EmptyFault(std::string_view text);

// A text for which `fault` finds nothing wrong.
Setter Text(std::string& text, std::string (*fault)(std::string_view) = EmptyFault);

// A number of the range, in decimal digits only.
Setter Number(std::int32_t& number, std::int32_t least, std::int32_t most);

// A number of bytes per second, also with k, m or g (powers of 1024, in either case) behind it,
// from 1k to 1024g.
Setter Rate(std::uint64_t& rate);

// Position of the word among `words`, which "|" separates; -1 when it is none of them.
int WordIndex(std::string_view words, std::string_view word);

// One of the words, which stand in the order of the values.
template <class Value>
Setter Word(Value& value, const char* words) {
    return [&value, words](const std::string& word) -> std::string {
        const int index = WordIndex(words, word);
        if (index == -1) return std::string("must be one of ") + words;
        value = static_cast<Value>(index);
        return "";
    };
}
