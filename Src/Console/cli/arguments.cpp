#include "Console/cli/arguments.h"

#include <algorithm>
#include <charconv>
#include <utility>

#include "common/address.h"

namespace {

// Column of the help in which the descriptions begin; lines have 80.
constexpr std::size_t kHelpColumn = 29;

bool IsOption(const Option& option) {
    return *option.names == '-';
}

bool HasValue(const Option& option) {
    return *option.value != '\0';
}

// Whether the argument behind the option is its value when it has none of its own.
bool NeedsValue(const Option& option) {
    return HasValue(option) && *option.value != '[';
}

bool MayRepeat(const Option& option) {
    return std::string_view(option.value).ends_with("...");
}

// The name that messages use: the last one.
std::string_view NameOf(const Option& option) {
    const std::string_view names = option.names;
    return names.substr(names.rfind(',') + 1);
}

std::string HelpLine(const char* names, const char* value, std::string_view help) {
    std::string line = std::string("  ") + names;
    if (*value != '\0') line += (*value == '[' ? "" : " ") + std::string(value);
    if (line.size() < kHelpColumn) {
        line.resize(kHelpColumn, ' ');
    } else {
        line += "\n" + std::string(kHelpColumn, ' ');
    }
    for (const char c : help) {
        line += c;
        if (c == '\n') line.append(kHelpColumn, ' ');
    }
    return line + "\n";
}

class Parser {
  public:
    Parser(const VerbForm& form, const std::vector<std::string>& arguments)
        : options_(form.options), arguments_(arguments), given_(form.options.size()) {}

    // This and the other functions return what is wrong, in one line.
    std::string Parse(bool& help);

  private:
    std::string ParseLong(const std::string& argument);
    std::string ParseShort(const std::string& argument);
    std::string Store(std::size_t row, const std::string& value);
    std::string StoreNext(std::size_t row, const std::string& argument);
    std::string Exclusion() const;
    std::size_t RowOf(std::string_view name) const;

    const std::vector<Option>& options_;
    const std::vector<std::string>& arguments_;
    std::size_t next_ = 0;  // argument to be read
    std::vector<bool> given_;
};

// The row of the option with that name; for "" that of the argument. The number of rows: none.
std::size_t Parser::RowOf(std::string_view name) const {
    for (std::size_t row = 0; row < options_.size(); ++row) {
        const std::string_view names = options_[row].names;
        const bool matches =
            name == NameOf(options_[row]) || name == names.substr(0, names.find(','));
        if (IsOption(options_[row]) ? matches : name.empty()) return row;
    }
    return options_.size();
}

std::string Parser::Parse(bool& help) {
    bool literal = false;
    while (next_ < arguments_.size()) {
        const std::string& argument = arguments_[next_++];
        std::string fault;
        if (!literal && (argument == "-h" || argument == "--help")) {
            help = true;
            return "";
        }
        if (literal || argument.size() < 2 || argument[0] != '-') {
            const std::size_t row = RowOf("");
            const bool room = row < options_.size() && (MayRepeat(options_[row]) || !given_[row]);
            fault = room ? Store(row, argument)
                         : "unexpected argument \"" + WithoutLogin(argument) + "\"";
        } else if (argument == "--") {
            literal = true;
        } else {
            fault = argument[1] == '-' ? ParseLong(argument) : ParseShort(argument);
        }
        if (!fault.empty()) return fault;
    }
    return Exclusion();
}

std::string Parser::ParseLong(const std::string& argument) {
    const std::size_t equals = argument.find('=');
    const std::string name = argument.substr(0, equals);
    const std::size_t row = RowOf(name);
    if (row == options_.size()) return "unknown option " + name;  // a value may be a password
    if (equals == std::string::npos) {
        return NeedsValue(options_[row]) ? StoreNext(row, argument) : Store(row, "");
    }
    if (equals + 1 == argument.size()) return name + ": the value is empty";
    if (!HasValue(options_[row])) return "an option that takes no value has one";
    return Store(row, argument.substr(equals + 1));
}

std::string Parser::ParseShort(const std::string& argument) {
    for (std::size_t at = 1; at < argument.size(); ++at) {
        const std::string name{'-', argument[at]};
        const std::size_t row = RowOf(name);
        if (row == options_.size()) return "unknown option -" + argument.substr(at);
        if (HasValue(options_[row])) {
            if (at + 1 == argument.size()) return StoreNext(row, argument);
            return Store(row, argument.substr(at + 1));
        }
        if (std::string fault = Store(row, ""); !fault.empty()) return fault;
    }
    return "";
}

std::string Parser::StoreNext(std::size_t row, const std::string& argument) {
    if (next_ == arguments_.size()) return argument + ": a value is missing";
    return Store(row, arguments_[next_++]);
}

std::string Parser::Store(std::size_t row, const std::string& value) {
    const Option& option = options_[row];
    const std::string name(NameOf(option));
    const bool once = IsOption(option) && HasValue(option) && !MayRepeat(option);
    if (once && given_[row]) return name + ": given more than once";
    given_[row] = true;
    const std::string fault = option.set(value);
    return fault.empty() ? "" : name + ": " + fault;
}

std::string Parser::Exclusion() const {
    for (std::size_t row = 0; row < options_.size(); ++row) {
        const char* other = options_[row].excludes;
        if (other == nullptr || !given_[row] || !given_[RowOf(other)]) continue;
        return std::string(NameOf(options_[row])) + " excludes " + other;
    }
    return "";
}

}  // namespace

std::string HelpText(const VerbForm& form) {
    std::string arguments;
    std::string options = HelpLine("-h,--help", "", "Print this help message and exit");
    for (const Option& option : form.options) {
        (IsOption(option) ? options : arguments) +=
            HelpLine(option.names, option.value, option.help);
    }
    if (!arguments.empty()) arguments = "\nPositionals:\n" + arguments;
    const std::string exits = *form.exits == '\0' ? "" : std::string("\n") + form.exits + "\n";
    return std::string(form.examples) + "\nUsage: taskman " + form.usage + "\n" + arguments +
           "\nOptions:\n" + options + exits;
}

std::string ParseArguments(const VerbForm& form, const std::vector<std::string>& arguments,
                           bool& help) {
    const std::string fault = Parser(form, arguments).Parse(help);
    return !fault.empty() || help ? fault : form.check();
}

std::string EmptyFault(std::string_view text) {
    return text.empty() ? "the value is empty" : "";
}

Setter Text(std::string& text, std::string (*fault)(std::string_view)) {
    return [&text, fault](const std::string& value) {
        text = value;
        return fault(value);
    };
}

Setter Number(std::int32_t& number, std::int32_t least, std::int32_t most) {
    return [&number, least, most](const std::string& text) -> std::string {
        std::uint32_t value = 0;  // takes no sign
        const char* end = text.data() + text.size();
        const auto [stop, error] = std::from_chars(text.data(), end, value);
        if (error != std::errc() || stop != end || std::cmp_less(value, least) ||
            std::cmp_greater(value, most)) {
            return "Value " + text + " not in range " + std::to_string(least) + " to " +
                   std::to_string(most);
        }
        number = static_cast<std::int32_t>(value);
        return "";
    };
}

Setter Rate(std::uint64_t& rate) {
    return [&rate](const std::string& text) -> std::string {
        constexpr std::uint64_t kLeast = 1ULL << 10;
        constexpr std::uint64_t kMost = 1ULL << 40;
        std::uint64_t value = 0;
        const char* end = text.data() + text.size();
        const auto [stop, error] = std::from_chars(text.data(), end, value);
        const std::string_view unit(stop, end);
        const std::size_t power = unit.empty() ? 0 : 1 + std::string_view("kKmMgG").find(unit) / 2;
        if (error != std::errc() || unit.size() > 1 || power > 3 || value > kMost >> 10 * power ||
            value << 10 * power < kLeast) {
            return "Value " + text + " is no rate of 1k to 1024g (bytes per second, or k, m, g)";
        }
        rate = value << 10 * power;
        return "";
    };
}

int WordIndex(std::string_view words, std::string_view word) {
    for (int index = 0;; ++index) {
        const std::size_t end = words.find('|');
        if (words.substr(0, end) == word) return index;
        if (end == std::string_view::npos) return -1;
        words.remove_prefix(end + 1);
    }
}
