#include <klNetBase/service/klNetUtils.h>

#include <klLog.h>
#include <klPlatform.h>
#include <klVersionInfo.h>

#include <QDir>
#include <QFile>
#include <QString>

#include <locale.h>
#include <stdlib.h>

#include <algorithm>

namespace {

// Executables of this platform carry no suffix; ".exe" where they do.
#if defined(_WIN32)
const char* const kExecutableSuffix = ".exe";
#else
const char* const kExecutableSuffix = "";
#endif

const char* const kEditions[] = {"KALDFarm-", "KALDMain-", "KALDHost-", "KALDStudio-", "KALDBase-"};

QString joined(const QString& directory, const QString& fileName) {
    return QDir(directory).filePath(fileName);
}

}  // namespace

std::string klNetUtils::getExecutablePath(const std::string& name, const std::string& version,
                                          const std::string& binDir) {
    QString fileName = QString::fromStdString(name);
    if (!fileName.endsWith(QLatin1String(kExecutableSuffix), Qt::CaseInsensitive)) {
        fileName += QLatin1String(kExecutableSuffix);
    }

    const QString programDir = QString::fromStdString(klPlatform::getBinDir());
    QString directory = QString::fromStdString(binDir);
    if (directory.isEmpty() || !QDir(directory).exists()) {
        directory = programDir;
    }

    // The same installation layout, one version over.
    const QString ownVersion = QString::fromStdString(klVersionInfo::the().getVersionString());
    directory.replace("-" + ownVersion, "-" + QString::fromStdString(version), Qt::CaseSensitive);
    const QString candidate = joined(directory, fileName);
    if (QFile::exists(candidate)) {
        return candidate.toStdString();
    }

    // That version of another edition.
    for (const char* present : kEditions) {
        if (!candidate.contains(QLatin1String(present), Qt::CaseSensitive)) {
            continue;
        }
        for (const char* edition : kEditions) {
            const QString path = QString(candidate).replace(
                QLatin1String(present), QLatin1String(edition), Qt::CaseSensitive);
            if (QFile::exists(path)) {
                return path.toStdString();
            }
        }
    }
    return joined(programDir, fileName).toStdString();
}

double klNetUtils::decimalValue(const std::string& text) {
    static const locale_t cLocale = ::newlocale(LC_ALL_MASK, "C", locale_t(0));
    return ::strtod_l(text.c_str(), nullptr, cLocale);
}

std::string klNetUtils::quoted(const std::string& text, std::size_t maxLength) {
    std::string result = "\"";
    klLog::appendEscaped(result, text.substr(0, maxLength), true);
    return result + (text.size() > maxLength ? "...\"" : "\"");
}

bool klNetUtils::isEnvironmentName(const std::string& text) {
    const auto letter = [](char c) {
        return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || c == '_';
    };
    return !text.empty() && letter(text[0]) &&
           std::all_of(text.begin() + 1, text.end(),
                       [&letter](char c) { return letter(c) || (c >= '0' && c <= '9'); });
}
