#pragma once

#include <QDateTime>
#include <QList>
#include <QString>

#include <functional>
#include <utility>

// The log file of a run. Every message except debug output is appended to
// "<folder>/<start time, UTC, yyyy-MM-dd HH-mm-ss>.txt" and flushed at once;
// every message, debug included, is then passed on to the handler that was
// installed before (the console, a debugger, a test harness).
namespace corv {

// Log files kept in the folder before the one of a new run is made.
inline constexpr int kKeptLogFiles = 25;

// The pattern every line is formatted with; information lines carry no level word.
inline constexpr char kLogMessagePattern[] =
    "[%{time process}] %{if-debug}DEBUG %{endif}%{if-warning}WARNING %{endif}"
    "%{if-critical}CRITICAL %{endif}%{if-fatal}FATAL %{endif}%{message}";

// "2024-03-05 07-08-09.txt" for a start at 07:08:09 UTC.
QString log_file_name(const QDateTime &start);

// Deletes all but the `keep` most recently modified files of `folder`.
void prune_log_folder(const QString &folder, int keep = kKeptLogFiles);

// Creates `folder`, prunes it, opens the file named after `start` for
// appending, sets the message pattern and installs the handler, keeping the
// previous one. Returns the path of the log file, or an empty string when it
// could not be opened; messages then still reach the previous handler. A
// second call first uninstalls the first.
QString install_logging(const QString &folder,
                        const QDateTime &start = QDateTime::currentDateTimeUtc());

// Puts the previous handler back and closes the file.
void uninstall_logging();

// The file of this run, or empty when there is none.
QString log_file_path();

// A line as it went into the log file (without its newline), with its type.
using LogLine = std::pair<QtMsgType, QString>;
// Called for every line written to the log file, on the thread that logged it
// and under the log's lock: it must only hand the line on (queue it).
using LogListener = std::function<void(QtMsgType type, const QString &line)>;
// Lines kept in memory for a listener that comes later (a window's log view).
inline constexpr int kKeptLogLines = 2000;
// Sets the one listener (null: none) and returns the latest kKeptLogLines
// lines written so far, so that nothing falls between the two.
QList<LogLine> set_log_listener(LogListener listener);

} // namespace corv
