#include "update/manifest.h"

#include "update/logging.h"

#include <QDir>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonParseError>
#include <QRegularExpression>

namespace corv::update {

QVersionNumber parse_version(const QString &text)
{
    return QVersionNumber::fromString(text.trimmed());
}

int compare_versions(const QVersionNumber &a, const QVersionNumber &b)
{
    return QVersionNumber::compare(a.normalized(), b.normalized());
}

bool is_safe_relative_path(const QString &path)
{
    if (path.isEmpty() || QDir::isAbsolutePath(path) || path.startsWith(u'/') ||
        path.startsWith(u'\\') || path.contains(u':'))
        return false;
    const QStringList parts =
        path.split(QRegularExpression(QStringLiteral("[/\\\\]")), Qt::SkipEmptyParts);
    if (parts.isEmpty())
        return path == u'.';
    for (const QString &part : parts) {
        if (part == QLatin1StringView(".."))
            return false;
    }
    return true;
}

QJsonObject Step::to_json() const
{
    QJsonObject object;
    switch (kind) {
    case Download:
        object[QLatin1StringView("download")] = value;
        object[QLatin1StringView("destination")] = destination;
        object[QLatin1StringView("sha256")] = QString::fromLatin1(sha256);
        object[QLatin1StringView("size")] = double(size);
        break;
    case Extract:
        object[QLatin1StringView("extract")] = value;
        object[QLatin1StringView("destination")] = destination;
        break;
    case Run:
        object[QLatin1StringView("run")] = value;
        break;
    }
    return object;
}

namespace {

// The reasons a step is refused; Ok when it reads.
enum class StepProblem {
    Ok,
    NoKind,
    TwoKinds,
    NoDestination,
    NoSha256,
    NoSize,
    BadSha256,
    BadSize,
    TooLarge
};

StepProblem read_step(const QJsonObject &object, Step &step)
{
    const bool download = object.contains(QLatin1StringView("download"));
    const bool run = object.contains(QLatin1StringView("run"));
    const bool extract = object.contains(QLatin1StringView("extract"));
    const int kinds = int(download) + int(run) + int(extract);
    if (kinds == 0)
        return StepProblem::NoKind;
    if (kinds > 1)
        return StepProblem::TwoKinds;
    step = Step();
    step.kind = download ? Step::Download : extract ? Step::Extract : Step::Run;
    step.value =
        object.value(QLatin1StringView(download  ? "download"
                                       : extract ? "extract"
                                                 : "run"))
            .toString();
    if (step.kind == Step::Run)
        return StepProblem::Ok;
    const QJsonValue destination = object.value(QLatin1StringView("destination"));
    if (!destination.isString())
        return StepProblem::NoDestination;
    step.destination = destination.toString();
    if (step.kind == Step::Extract)
        return StepProblem::Ok;
    const QJsonValue sha256 = object.value(QLatin1StringView("sha256"));
    if (!sha256.isString())
        return StepProblem::NoSha256;
    const QJsonValue size = object.value(QLatin1StringView("size"));
    if (!size.isDouble())
        return StepProblem::NoSize;
    step.sha256 = sha256.toString().toLower().toLatin1();
    static const QRegularExpression hex(QStringLiteral("^[0-9a-f]{64}$"));
    if (!hex.match(QString::fromLatin1(step.sha256)).hasMatch())
        return StepProblem::BadSha256;
    const double bytes = size.toDouble();
    if (!(bytes >= 0 && bytes <= 9.0e15) || bytes != double(qint64(bytes)))
        return StepProblem::BadSize;
    step.size = qint64(bytes);
    if (step.size > kMaxPackageSize)
        return StepProblem::TooLarge;
    return StepProblem::Ok;
}

// Collects the first failure of a manifest and logs it.
struct Validation {
    QString prefix;
    QString *error;

    std::nullopt_t fail(const QString &what) const
    {
        const QString message = prefix + what;
        qCWarning(lc_update).noquote() << message;
        if (error)
            *error = message;
        return std::nullopt;
    }
    std::nullopt_t invalid(const QString &what) const
    {
        return fail(QStringLiteral("failed to validate manifest: ") + what);
    }
};

std::optional<QJsonObject> parse_object(QByteArrayView json, const Validation &check)
{
    if (json.size() > kMaxManifestSize)
        return check.fail(QStringLiteral("failed to parse manifest: it is over the limit of %1 bytes")
                              .arg(kMaxManifestSize));
    QJsonParseError parse_error{};
    const QJsonDocument document = QJsonDocument::fromJson(json.toByteArray(), &parse_error);
    if (parse_error.error != QJsonParseError::NoError)
        return check.fail(QStringLiteral("failed to parse manifest: ") + parse_error.errorString());
    if (!document.isObject())
        return check.fail(
            QStringLiteral("failed to parse manifest: the document is not an object"));
    return document.object();
}

bool check_format_version(const QJsonObject &root, const Validation &check)
{
    const QJsonValue format = root.value(QLatin1StringView("formatVersion"));
    if (format.isUndefined() || format.isNull()) {
        check.invalid(QStringLiteral("formatVersion is missing"));
        return false;
    }
    const double number = format.toDouble(0);
    if (number != 1) {
        const int shown = number >= -2147483648.0 && number <= 2147483647.0 ? int(number) : 0;
        check.invalid(QStringLiteral("formatVersion %1 is not supported").arg(shown));
        return false;
    }
    return true;
}

bool read_versions(const QJsonValue &value, const QString &where,
                   QMap<QString, QVersionNumber> &out, const Validation &check)
{
    const QJsonObject object = value.toObject();
    for (auto it = object.begin(); it != object.end(); ++it) {
        const QVersionNumber version = parse_version(it.value().toString());
        if (!it.value().isString() || version.isNull()) {
            check.invalid(QStringLiteral("%1.%2 is an invalid version").arg(where, it.key()));
            return false;
        }
        out.insert(it.key(), version);
    }
    return true;
}

std::optional<Manifest> read_entries(const QJsonObject &root, const Validation &check)
{
    const QJsonValue entries_value = root.value(QLatin1StringView("entries"));
    if (!entries_value.isArray())
        return check.invalid(QStringLiteral("entries is missing"));
    const QJsonArray entries = entries_value.toArray();
    if (entries.isEmpty())
        return check.invalid(QStringLiteral("entries is empty"));

    Manifest manifest;
    for (qsizetype i = 0; i < entries.size(); ++i) {
        const QJsonObject object = entries.at(i).toObject();
        const QString at = QStringLiteral("entries[%1]").arg(i);
        Entry entry;
        const QJsonValue version = object.value(QLatin1StringView("version"));
        if (!version.isString())
            return check.invalid(at + QStringLiteral(".version is missing"));
        entry.version_text = version.toString();
        entry.version = parse_version(entry.version_text);
        if (entry.version.isNull())
            return check.invalid(at + QStringLiteral(".version is an invalid version"));
        const QJsonValue description = object.value(QLatin1StringView("descriptionUrl"));
        if (!description.isString())
            return check.invalid(at + QStringLiteral(".descriptionUrl is missing"));
        entry.description_url = description.toString();
        entry.release_date = QDateTime::fromString(
            object.value(QLatin1StringView("releaseDate")).toString(), Qt::ISODateWithMs);
        if (!read_versions(object.value(QLatin1StringView("provides")),
                           at + QStringLiteral(".provides"), entry.provides, check) ||
            !read_versions(object.value(QLatin1StringView("requires")),
                           at + QStringLiteral(".requires"), entry.requirements, check))
            return std::nullopt;

        const QJsonValue methods_value = object.value(QLatin1StringView("methods"));
        if (!methods_value.isObject())
            return check.invalid(at + QStringLiteral(".methods is missing"));
        const QJsonObject methods = methods_value.toObject();
        bool empty = methods.isEmpty();
        for (auto it = methods.begin(); it != methods.end() && !empty; ++it)
            empty = it.value().toArray().isEmpty();
        if (empty)
            return check.invalid(at + QStringLiteral(".methods is empty"));

        for (auto it = methods.begin(); it != methods.end(); ++it) {
            const QJsonArray steps = it.value().toArray();
            QList<Step> &out = entry.methods[it.key()];
            for (qsizetype s = 0; s < steps.size(); ++s) {
                const QString step_at =
                    QStringLiteral("%1.methods.%2[%3]").arg(at, it.key()).arg(s);
                Step step;
                switch (read_step(steps.at(s).toObject(), step)) {
                case StepProblem::Ok:
                    break;
                case StepProblem::NoKind:
                    return check.invalid(
                        step_at + QStringLiteral(" must have at least download, run or extract"));
                case StepProblem::TwoKinds:
                    return check.invalid(
                        step_at + QStringLiteral(" can only have either download, run or extract"));
                case StepProblem::NoDestination:
                    return check.invalid(step_at + QStringLiteral(".destination is missing"));
                case StepProblem::NoSha256:
                    return check.invalid(step_at + QStringLiteral(".sha256 is missing"));
                case StepProblem::NoSize:
                    return check.invalid(step_at + QStringLiteral(".size is missing"));
                case StepProblem::BadSha256:
                    return check.invalid(step_at +
                                         QStringLiteral(".sha256 is not a hex SHA-256 digest"));
                case StepProblem::BadSize:
                    return check.invalid(step_at + QStringLiteral(".size is not a byte count"));
                case StepProblem::TooLarge:
                    return check.invalid(step_at + QStringLiteral(".size is over the limit of %1 bytes")
                                                       .arg(kMaxPackageSize));
                }
                out.append(step);
            }
        }
        manifest.entries.append(entry);
    }
    return manifest;
}

} // namespace

std::optional<Step> Step::from_json(const QJsonObject &object)
{
    Step step;
    if (read_step(object, step) != StepProblem::Ok)
        return std::nullopt;
    return step;
}

std::optional<Manifest> read_manifest(QByteArrayView json, const QString &component, QString *error)
{
    const Validation check{component + QStringLiteral(" updater: "), error};
    const std::optional<QJsonObject> root = parse_object(json, check);
    if (!root || !check_format_version(*root, check))
        return std::nullopt;
    return read_entries(*root, check);
}

std::optional<PluginManifest> read_plugin_manifest(QByteArrayView json, QString *error)
{
    const Validation check{QStringLiteral("plugin installer: "), error};
    const std::optional<QJsonObject> root = parse_object(json, check);
    if (!root || !check_format_version(*root, check))
        return std::nullopt;

    PluginManifest manifest;
    const QJsonValue id = root->value(QLatin1StringView("id"));
    if (!id.isString() || id.toString().isEmpty())
        return check.invalid(QStringLiteral("id is missing"));
    manifest.id = id.toString();
    // The id names the plugin's folder.
    static const QRegularExpression id_pattern(
        QStringLiteral("^[A-Za-z0-9_-][A-Za-z0-9._-]{0,127}$"));
    if (!id_pattern.match(manifest.id).hasMatch() || manifest.id.contains(QLatin1StringView("..")))
        return check.invalid(QStringLiteral("id %1 is not a valid plugin id").arg(manifest.id));
    const QJsonValue name = root->value(QLatin1StringView("displayName"));
    if (!name.isString() || name.toString().isEmpty())
        return check.invalid(QStringLiteral("displayName is missing"));
    manifest.display_name = name.toString();

    const QString icon = root->value(QLatin1StringView("iconUrl")).toString();
    if (!icon.isEmpty()) {
        // The icon is optional: one that cannot be checked is left out.
        const QJsonValue digest = root->value(QLatin1StringView("iconSha256"));
        const QJsonValue size = root->value(QLatin1StringView("iconSize"));
        static const QRegularExpression hex(QStringLiteral("^[0-9a-fA-F]{64}$"));
        const double bytes = size.toDouble(-1);
        QString problem;
        if (!digest.isString())
            problem = QStringLiteral("iconSha256 is missing");
        else if (!size.isDouble())
            problem = QStringLiteral("iconSize is missing");
        else if (!hex.match(digest.toString()).hasMatch())
            problem = QStringLiteral("iconSha256 is not a hex SHA-256 digest");
        else if (bytes > double(kMaxIconSize))
            problem = QStringLiteral("iconSize is over the limit of %1 bytes").arg(kMaxIconSize);
        else if (!(bytes >= 0) || bytes != double(qint64(bytes)))
            problem = QStringLiteral("iconSize is not a byte count");
        if (problem.isEmpty()) {
            manifest.icon_url = QUrl(icon);
            manifest.icon_sha256 = digest.toString().toLower().toLatin1();
            manifest.icon_size = qint64(bytes);
        } else {
            qCWarning(lc_update).noquote()
                << QStringLiteral("plugin installer: leaving out the icon: %1").arg(problem);
        }
    }

    const std::optional<Manifest> package = read_entries(
        *root, Validation{manifest.display_name + QStringLiteral(" updater: "), error});
    if (!package)
        return std::nullopt;
    manifest.package = *package;
    return manifest;
}

} // namespace corv::update
