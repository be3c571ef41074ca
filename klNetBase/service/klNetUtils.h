// klNetUtils: finding the program of a given product version among side-by-side installations,
// reading version texts as numbers, quoting peers' texts, and checking variable names.
//
// Installations live in directories whose names carry an edition prefix and a version number,
// e.g. .../KALDMain-10.0/bin. The editions, in the order in which they are tried:
//
//   1 "KALDFarm-"   2 "KALDMain-"   3 "KALDHost-"   4 "KALDStudio-"   5 "KALDBase-"
//
// Thread safety: any thread.
#pragma once

#include <klNetBase/klNetBaseExport.h>

#include <string>

class KLNETBASE_EXPORT klNetUtils {
public:
    // The full path of program `name` of product `version`, looked up from binDir (empty or
    // missing: the directory of the running program):
    //  1. the platform's executable suffix is appended unless name already ends in it (in any
    //     letter case); Linux programs have none, so the name stays as it is;
    //  2. every "-<own version>" in the directory is replaced by "-<version>"; if the program
    //     exists there, that is the answer;
    //  3. otherwise, for each edition prefix found in that path, each edition in table order is
    //     put in its place; the first path that exists is the answer;
    //  4. otherwise the program beside the running one, whether it exists or not.
    // Never fails: a path that does not exist makes the later start fail.
    static std::string getExecutablePath(const std::string& name, const std::string& version,
                                         const std::string& binDir);
    // atof in the C locale: a version text ("9.2") reads the same whatever locale the program
    // runs in (a QCoreApplication adopts the user's). Text without a leading number gives 0.
    static double decimalValue(const std::string& text);
    // A peer's text for a message or a log line: in double quotes, cut after maxLength bytes
    // ("..." then marks the cut), and every byte that is not printable ASCII, or is a quote or a
    // backslash, escaped (\n, \", \\, \xHH).
    static std::string quoted(const std::string& text, std::size_t maxLength = 64);
    // Whether text is an environment variable's name as a shell writes one:
    // [A-Za-z_][A-Za-z0-9_]*.
    static bool isEnvironmentName(const std::string& text);
};
