// klCommandLine: the command-line conventions every program of this project follows, on CLI11.
//
//   int main(int argc, char** argv) {
//       klCommandLine cli("klnetctl", "Talks to the cluster service of a render node.");
//       int port = 8889;
//       cli.app().add_option("--port", port, "service port (default 8889)")
//           ->type_name("N")
//           ->check(klCommandLine::integer(1, 65535));
//       if (const std::optional<int> done = cli.parse(argc, argv)) {
//           return *done;  // --help, --version or a bad command line: all said already
//       }
//       if (somethingThatDoesNotGoTogether) {
//           return cli.fail("--servers 3 leaves nodes without work");
//       }
//       ...
//   }
//
// Every program gets, from the constructor and parse():
//   -h, --help   its help (or, after a subcommand, the subcommand's) on standard output; status 0
//   --version    "PROGRAM 10.0", the version of klVersionInfo, on standard output; status 0
//   --opt value and --opt=value; the program's own options also after a subcommand
//                ("klnetctl status --json" is "klnetctl --json status")
//   a bad command line: exactly one line on standard error, "PROGRAM: what is wrong (see
//   --help)", and status 2, for instance
//       unknown option '--bogus'           unexpected argument 'x'       unknown command 'x'
//       --output needs a value             --json takes no value (a flag given "=value")
//       --port given more than once        PATH is missing (a required argument)
//       unknown option '-tax' (a group of one-letter flags with one nobody knows)
//       --port: '0' is not an integer from 1 to 65535   (the validators below)
//   CLI11's own texts never reach the user as they are: describe() words them as above.
//   The help's layout reads well as a man page through help2man ("Usage:" first, then the
//   description, options as "  -h, --help   text", sections ending in ':').
//
// Options are added to app() (or its subcommands) with CLI11's own calls. Give value options a
// type_name ("N", "HOST", "PATH") and check them with integer() or number(), whose texts are the
// common ones; check further things after parse() and report them with fail().
//
// Thread safety: one thread (main's).
#pragma once

#include <CLI/CLI.hpp>

#include <optional>
#include <string>
#include <vector>

class klCommandLine {
public:
    // program: the name in the usage line, in --version and in error lines; description: what the
    // program does, the help's first paragraph.
    klCommandLine(std::string program, const std::string& description);

    CLI::App& app() { return m_app; }
    const std::string& program() const { return m_program; }

    // Parses the command line (argv[0] is the program's path and is not looked at). Returns the
    // exit status when the program is to end now: 0 after --help or --version, 2 after a bad
    // command line, its error line written. Returns nothing when the program goes on.
    std::optional<int> parse(int argc, const char* const* argv);
    // The same for the arguments after the program's path, in their order.
    std::optional<int> parse(std::vector<std::string> args);
    // Parses as parse() does but writes nothing: the complaint parse() would write, without the
    // program's name, or "" for a good command line (--help and --version count as good). For a
    // command line read again while the program runs (a configuration reloaded).
    std::string check(std::vector<std::string> args);

    // Writes "PROGRAM: what (see --help)" on standard error and returns 2, the status to exit
    // with: for what parse() cannot see (options that do not go together, a file that cannot be
    // read).
    int fail(const std::string& what) const { return fail(m_program, what); }
    static int fail(const std::string& program, const std::string& what);

    // "PROGRAM 10.0".
    static std::string versionText(const std::string& program);

    // Accepts a decimal integer from low to high; else "'TEXT' is not an integer from low to high".
    static CLI::Validator integer(long long low, long long high);
    // Accepts a finite decimal number from low to high (above low when aboveLow); else "'TEXT' is
    // not a number from low to high" ("above low and at most high").
    static CLI::Validator number(double low, double high, bool aboveLow = false);

private:
    // The one line for a parse error of CLI11.
    static std::string describe(const CLI::ParseError& error);
    // The first argument nobody took, as a complaint; empty when there is none.
    std::string leftOver() const;

    std::string m_program;
    CLI::App m_app;
    // The arguments of the last parse(), as given.
    std::vector<std::string> m_args;
};
