#include "klCommandLine.h"

#include "klVersionInfo.h"

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <iostream>
#include <memory>
#include <regex>
#include <sstream>

namespace {

constexpr std::size_t kLineWidth = 80;
constexpr std::size_t kNameColumn = 24;

// The text broken at blanks into lines of at most width characters; its own line breaks stay.
std::string wrapped(const std::string& text, std::size_t width) {
    std::string out;
    std::istringstream lines(text);
    std::string line;
    for (bool first = true; std::getline(lines, line); first = false) {
        out += first ? "" : "\n";
        if (!line.empty() && line[0] == ' ') {
            out += line;  // laid out by hand
            continue;
        }
        std::istringstream words(line);
        std::string word;
        std::size_t length = 0;
        while (words >> word) {
            if (length > 0 && length + 1 + word.size() > width) {
                out += "\n";
                length = 0;
            } else if (length > 0) {
                out += ' ';
                ++length;
            }
            out += word;
            length += word.size();
        }
    }
    return out;
}

// The GNU layout that help2man reads: "Usage:" first, then the description, the options (names
// as "-h, --help", value names only), the commands, and the footer, in lines of 80 characters.
class Formatter : public CLI::Formatter {
public:
    Formatter() {
        column_width(kNameColumn);
        label("SUBCOMMAND", "COMMAND");
        label("SUBCOMMANDS", "COMMAND");
        label("Positionals", "Arguments");
    }
    std::string make_help(const CLI::App* app, std::string name,
                          CLI::AppFormatMode mode) const override {
        if (mode == CLI::AppFormatMode::Sub) {
            return make_expanded(app);
        }
        std::ostringstream out;
        out << make_usage(app, name) << '\n' << make_description(app);
        out << make_positionals(app) << make_groups(app, mode) << make_subcommands(app, mode);
        const std::string footer = make_footer(app);
        std::string text = out.str();
        if (!footer.empty()) {
            text += (text.size() > 1 && text.compare(text.size() - 2, 2, "\n\n") == 0 ? "" : "\n") +
                    footer;
        }
        return text;
    }
    std::string make_description(const CLI::App* app) const override {
        const std::string text = wrapped(app->get_description(), kLineWidth);
        return text.empty() ? text : text + "\n";
    }
    std::string make_footer(const CLI::App* app) const override {
        const std::string text = wrapped(app->get_footer(), kLineWidth);
        return text.empty() ? text : text + "\n";
    }
    std::string make_subcommand(const CLI::App* command) const override {
        std::ostringstream out;
        CLI::detail::format_help(out, command->get_display_name(true),
                                 wrapped(command->get_description(), kLineWidth - kNameColumn),
                                 kNameColumn);
        return out.str();
    }
    std::string make_option_name(const CLI::Option* option, bool positional) const override {
        return positional ? option->get_name(true, false)
                          : CLI::detail::find_and_replace(option->get_name(false, true), ",", ", ");
    }
    std::string make_option_opts(const CLI::Option* option) const override {
        if (option->get_type_size() == 0 || option->get_type_name().empty()) {
            return {};
        }
        return " " + get_label(option->get_type_name()) +
               (option->get_expected_max() == CLI::detail::expected_max_vector_size ? " ..." : "");
    }
    std::string make_option_desc(const CLI::Option* option) const override {
        return wrapped(option->get_description(), kLineWidth - kNameColumn);
    }
};

std::string number(double value) {
    char text[32];
    std::snprintf(text, sizeof(text), "%g", value);
    return text;
}

// Flags refuse "=value", and commands are listed as such, in the program and its subcommands.
void prepare(CLI::App& app) {
    for (CLI::Option* option : app.get_options()) {
        if (option->get_expected_max() == 0) {
            option->disable_flag_override();
        }
    }
    for (CLI::App* command : app.get_subcommands({})) {
        command->group("Commands");
        prepare(*command);
    }
}

}  // namespace

klCommandLine::klCommandLine(std::string program, const std::string& description)
    : m_program(std::move(program)), m_app(description, m_program) {
    m_app.formatter(std::make_shared<Formatter>());
    m_app.set_help_flag("-h,--help", "show this help and exit");
    m_app.set_version_flag("--version", versionText(m_program), "show the version and exit");
    // The program's options are taken after a subcommand too; arguments nobody takes are
    // collected and reported by parse(), one line for the first.
    m_app.fallthrough();
    m_app.allow_extras();
}

std::optional<int> klCommandLine::parse(int argc, const char* const* argv) {
    return parse(std::vector<std::string>(argv + std::min(argc, 1), argv + argc));
}

std::optional<int> klCommandLine::parse(std::vector<std::string> args) {
    prepare(m_app);
    m_args = args;
    // CLI11 takes the arguments last first.
    std::reverse(args.begin(), args.end());
    try {
        m_app.parse(args);
    } catch (const CLI::CallForHelp&) {
        std::cout << m_app.help() << std::flush;
        return 0;
    } catch (const CLI::CallForAllHelp&) {
        std::cout << m_app.help("", CLI::AppFormatMode::All) << std::flush;
        return 0;
    } catch (const CLI::CallForVersion& version) {
        std::cout << version.what() << std::endl;
        return 0;
    } catch (const CLI::ParseError& error) {
        // An argument nobody took is most often what put the rest out ("--bogus" before a
        // missing command): it is named first.
        const std::string complaint = leftOver();
        return fail(complaint.empty() ? describe(error) : complaint);
    }
    const std::string complaint = leftOver();
    if (!complaint.empty()) {
        return fail(complaint);
    }
    return std::nullopt;
}

std::string klCommandLine::check(std::vector<std::string> args) {
    prepare(m_app);
    std::reverse(args.begin(), args.end());
    try {
        m_app.parse(args);
    } catch (const CLI::Success&) {
        return {};
    } catch (const CLI::ParseError& error) {
        const std::string complaint = leftOver();
        return complaint.empty() ? describe(error) : complaint;
    }
    return leftOver();
}

int klCommandLine::fail(const std::string& program, const std::string& what) {
    std::fprintf(stderr, "%s: %s (see --help)\n", program.c_str(), what.c_str());
    return 2;
}

std::string klCommandLine::versionText(const std::string& program) {
    return program + " " + klVersionInfo::the().getVersionString();
}

CLI::Validator klCommandLine::integer(long long low, long long high) {
    const std::string range =
        "an integer from " + std::to_string(low) + " to " + std::to_string(high);
    return CLI::Validator(
        [low, high, range](std::string& text) -> std::string {
            const bool digits = !text.empty() &&
                                std::all_of(text.begin() + (text[0] == '-' ? 1 : 0), text.end(),
                                            [](unsigned char c) { return std::isdigit(c); }) &&
                                text != "-";
            errno = 0;
            const long long value = digits ? std::strtoll(text.c_str(), nullptr, 10) : 0;
            if (!digits || errno != 0 || value < low || value > high) {
                return "'" + text + "' is not " + range;
            }
            return {};
        },
        "", "integer");
}

CLI::Validator klCommandLine::number(double low, double high, bool aboveLow) {
    const std::string range =
        aboveLow ? "a number above " + ::number(low) + " and at most " + ::number(high)
                 : "a number from " + ::number(low) + " to " + ::number(high);
    return CLI::Validator(
        [low, high, aboveLow, range](std::string& text) -> std::string {
            char* end = nullptr;
            const double value = std::strtod(text.c_str(), &end);
            const bool inRange = aboveLow ? value > low : value >= low;
            if (text.empty() || std::isspace(static_cast<unsigned char>(text[0])) || *end != '\0' ||
                !std::isfinite(value) || !inRange || value > high) {
                return "'" + text + "' is not " + range;
            }
            return {};
        },
        "", "number");
}

std::string klCommandLine::describe(const CLI::ParseError& error) {
    const std::string text = error.what();
    std::smatch match;
    if (std::regex_match(text, match, std::regex(R"((\S+): \d+ required .* missing)"))) {
        return match[1].str() + " needs a value";
    }
    // CLI11's own wording for the rest, in ours: what is wrong, with the option's name first.
    if (std::regex_match(text, match,
                         std::regex(R"((\S+): At Most (\d+) required but received (\d+))"))) {
        return match[2].str() == "1" ? match[1].str() + " given more than once"
                                     : match[1].str() + " takes at most " + match[2].str() +
                                           " values, not " + match[3].str();
    }
    if (std::regex_match(text, match,
                         std::regex(R"((\S+): At least (\d+) required but received (\d+))"))) {
        return match[1].str() + " needs " + match[2].str() + " values, not " + match[3].str();
    }
    if (std::regex_match(text, match, std::regex(R"((\S+): too many inputs for a flag)"))) {
        return match[1].str() + " takes no value";
    }
    if (std::regex_match(text, match, std::regex(R"((\S+) excludes (\S+))"))) {
        return match[1].str() + " and " + match[2].str() + " do not go together";
    }
    if (std::regex_match(text, match, std::regex(R"((\S+) requires (\S+))"))) {
        return match[1].str() + " needs " + match[2].str() + " as well";
    }
    if (std::regex_match(text, match,
                         std::regex(R"(The value (.*) is not an allowed value for (\S+))"))) {
        return match[2].str() + ": '" + match[1].str() + "' is not an allowed value";
    }
    if (std::regex_match(text, match, std::regex(R"((.*) was not readable \(missing\?\))"))) {
        return "cannot read '" + match[1].str() + "'";
    }
    if (std::regex_match(text, match, std::regex(R"(INI was not able to parse (.*))"))) {
        return "the configuration file has an unknown option '" + match[1].str() + "'";
    }
    if (std::regex_match(
            text, match,
            std::regex(R"((\S+): This option is not allowed in a configuration file)"))) {
        return match[1].str() + " cannot be set in a configuration file";
    }
    if (std::regex_match(text, match, std::regex(R"((\S+) is required)"))) {
        return match[1].str() + " is missing";
    }
    if (std::regex_match(
            text, match,
            std::regex(R"(The following arguments? (?:was|were) not expected: (\S+).*)"))) {
        return "unexpected argument '" + match[1].str() + "'";
    }
    if (std::regex_match(text, match,
                         std::regex(R"((\S+) was given a disallowed flag override)"))) {
        const std::string name = match[1].str();
        return (name[0] == '-' ? name : (name.size() == 1 ? "-" : "--") + name) + " takes no value";
    }
    if (text == "A subcommand is required" ||
        std::regex_match(text, std::regex(R"(Requires at least \d+ subcommands.*)"))) {
        return "no command given";
    }
    if (std::regex_match(text, match, std::regex(R"(Could not convert: (\S+) = (.*))"))) {
        return match[1].str() + ": '" + match[2].str() + "' is not a valid value";
    }
    // CLI11's other texts ("ID is required", "-a requires -t") read well once they start small.
    std::string line = text;
    if (line.size() > 1 && std::isupper(static_cast<unsigned char>(line[0])) &&
        std::islower(static_cast<unsigned char>(line[1]))) {
        line[0] = char(std::tolower(static_cast<unsigned char>(line[0])));
    }
    std::replace(line.begin(), line.end(), '\n', ' ');
    return line;
}

std::string klCommandLine::leftOver() const {
    std::vector<std::string> left = m_app.remaining(true);
    // The "--" that ends the options is listed too; a "--" after it is an argument.
    const auto mark = std::find(left.begin(), left.end(), "--");
    if (mark != left.end()) {
        left.erase(mark);
    }
    if (left.empty()) {
        return {};
    }
    const std::string& first = left.front();
    if (first.size() > 1 && first[0] == '-') {
        // Of a group of one-letter flags ("-tax", "-socketpipe") CLI11 keeps the letters after
        // the ones it knows ("-x", "-ocketpipe"): the argument as given is named instead.
        std::string given = first;
        if (first[1] != '-' && std::find(m_args.begin(), m_args.end(), first) == m_args.end()) {
            const std::string tail = first.substr(1);
            for (const std::string& arg : m_args) {
                if (arg.size() > first.size() && arg[0] == '-' && arg[1] != '-' &&
                    arg.compare(arg.size() - tail.size(), tail.size(), tail) == 0) {
                    given = arg;
                    break;
                }
            }
        }
        return "unknown option '" + given.substr(0, given.find('=')) + "'";
    }
    const bool expectsCommand = !m_app.get_subcommands({}).empty();
    if (expectsCommand && m_app.get_subcommands().empty()) {
        return "unknown command '" + first + "'";
    }
    return "unexpected argument '" + first + "'";
}
