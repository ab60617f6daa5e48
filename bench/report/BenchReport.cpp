// bench_report --bin DIR --rows FILE --json OUT [--min-time SECONDS]
//
// Runs every benchmark the rows file names, each in a process of its own (so its peak memory
// is its own), reads the figures from Google Benchmark's JSON report, prints one table of ours
// against each peer and writes the same as JSON. A binary that is not in DIR gives "not built"
// in its rows; a benchmark the binary does not have, or one that failed, says so.
#include <spawn.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <QDateTime>
#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QSysInfo>
#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <map>
#include <optional>
#include <sstream>
#include <string>
#include <vector>

extern char** environ;

namespace {

struct Row {
    std::string job, binary, bench, counter, peer, peerBinary, peerBench, peerCounter, better, goal;
};

// One benchmark's outcome.
struct Result {
    std::string status;  // "ok", or why there is no figure
    double value = NAN;
    double peakMiB = NAN;
};

std::vector<std::string> Split(const std::string& line, char sep)
{
    std::vector<std::string> out;
    std::string field;
    std::istringstream in(line);
    while (std::getline(in, field, sep)) out.push_back(field);
    return out;
}

bool ReadRows(const std::string& path, std::vector<Row>& rows, std::string& why)
{
    std::ifstream in(path);
    if (!in) {
        why = path + ": cannot open";
        return false;
    }
    std::string line;
    int number = 0;
    while (std::getline(in, line)) {
        ++number;
        if (line.empty() || line[0] == '#') continue;
        const auto f = Split(line, '\t');
        if (f.size() != 10) {
            why = path + ":" + std::to_string(number) + ": expected 10 tab-separated fields, found " + std::to_string(f.size());
            return false;
        }
        Row r{f[0], f[1], f[2], f[3], f[4], f[5], f[6], f[7], f[8], f[9]};
        // "=" names the module's own binary or benchmark: a benchmark that times both sides.
        if (r.peerBinary == "=") r.peerBinary = r.binary;
        if (r.peerBench == "=") r.peerBench = r.bench;
        rows.push_back(r);
    }
    if (rows.empty()) {
        why = path + ": no rows";
        return false;
    }
    return true;
}

std::string RegexEscape(const std::string& s)
{
    std::string out;
    for (char c : s) {
        if (std::strchr("\\^$.|?*+()[]{}", c)) out += '\\';
        out += c;
    }
    return out;
}

// Runs a program, collecting its standard output; its peak resident set in KiB goes to
// *maxrssKiB. Returns the exit status, or -1 when it could not run or did not exit.
int RunCapture(const std::vector<std::string>& args, std::string& out, long* maxrssKiB)
{
    int pipefd[2];
    if (pipe(pipefd) != 0) return -1;
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, pipefd[1], 1);
    posix_spawn_file_actions_addclose(&actions, pipefd[0]);
    posix_spawn_file_actions_addclose(&actions, pipefd[1]);
    std::vector<char*> argv;
    for (const auto& a : args) argv.push_back(const_cast<char*>(a.c_str()));
    argv.push_back(nullptr);
    pid_t pid;
    const int rc = posix_spawn(&pid, argv[0], &actions, nullptr, argv.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    close(pipefd[1]);
    if (rc != 0) {
        close(pipefd[0]);
        return -1;
    }
    char buf[65536];
    for (;;) {
        const ssize_t n = read(pipefd[0], buf, sizeof buf);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) break;
        out.append(buf, static_cast<std::size_t>(n));
    }
    close(pipefd[0]);
    int status = 0;
    rusage usage{};
    while (wait4(pid, &status, 0, &usage) < 0) {
        if (errno != EINTR) return -1;
    }
    if (maxrssKiB) *maxrssKiB = usage.ru_maxrss;
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

class Runner {
public:
    Runner(std::string dir, std::string minTime) : dir_(std::move(dir)), minTime_(std::move(minTime)) {}

    // The figure `counter` of one benchmark; ownCounter is the counter of the side that the
    // benchmark is for, so that a peer figure read from the same benchmark gets no peak.
    Result Get(const std::string& binary, const std::string& bench, const std::string& counter,
               const std::string& ownCounter, bool sharedWithPeer)
    {
        const std::string key = binary + "\n" + bench;
        auto it = cache_.find(key);
        if (it == cache_.end()) it = cache_.emplace(key, Run(binary, bench)).first;
        return Read(it->second, bench, counter, ownCounter, sharedWithPeer);
    }

private:
    // What one run of a benchmark left: its JSON document or why there is none.
    struct Raw {
        std::string status;
        QJsonDocument doc;
        long maxrssKiB = -1;
    };

    Raw Run(const std::string& binary, const std::string& bench)
    {
        Raw raw;
        const std::string path = dir_ + "/" + binary;
        if (access(path.c_str(), X_OK) != 0) {
            raw.status = "not built";
            return raw;
        }
        std::fprintf(stderr, "running %s %s\n", binary.c_str(), bench.c_str());
        // The report goes to a file of its own, so whatever the benchmark or the programs it
        // starts print on standard output cannot get into the JSON.
        std::string outPath = (std::filesystem::temp_directory_path() / "bench-report-XXXXXX").string();
        const int fd = mkstemp(outPath.data());
        if (fd < 0) {
            raw.status = "cannot make a temporary file";
            return raw;
        }
        close(fd);
        std::vector<std::string> args = {path, "--benchmark_out_format=json", std::string("--benchmark_out=") + outPath,
                                         "--benchmark_filter=^" + RegexEscape(bench) + "$"};
        if (!minTime_.empty()) args.push_back("--benchmark_min_time=" + minTime_);
        std::string console;
        const int status = RunCapture(args, console, &raw.maxrssKiB);
        QFile file(QString::fromStdString(outPath));
        const QByteArray json = file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
        unlink(outPath.c_str());
        QJsonParseError err{};
        raw.doc = QJsonDocument::fromJson(json, &err);
        if (status != 0)
            raw.status = "failed (exit " + std::to_string(status) + ")";
        else if (json.isEmpty())
            raw.status = "no JSON output";
        else if (!raw.doc.isObject())
            raw.status = "bad JSON: " + err.errorString().toStdString() + " at " + std::to_string(err.offset);
        else
            raw.status = "ok";
        return raw;
    }

    static Result Read(const Raw& raw, const std::string& bench, const std::string& counter, const std::string& ownCounter,
                       bool sharedWithPeer)
    {
        Result r;
        if (raw.status != "ok") {
            r.status = raw.status;
            return r;
        }
        const long maxrss = raw.maxrssKiB;
        for (const auto& v : raw.doc.object().value("benchmarks").toArray()) {
            const QJsonObject b = v.toObject();
            if (b.value("name").toString().toStdString() != bench) continue;
            if (b.value("error_occurred").toBool()) {
                r.status = "error: " + b.value("error_message").toString().toStdString();
                return r;
            }
            if (!b.contains(QString::fromStdString(counter))) {
                r.status = "no counter " + counter;
                return r;
            }
            r.value = b.value(QString::fromStdString(counter)).toDouble();
            // A benchmark that measures its worker's peak itself says so (peak_MiB, or
            // peak_rss_MiB); otherwise the benchmark process's own peak stands for it, unless
            // the benchmark also runs the peer, whose peak would be mixed in. When one
            // benchmark times both sides, the peer's peak is not known.
            const bool peerSide = counter != ownCounter;
            if (peerSide)
                r.peakMiB = NAN;
            else if (b.contains("peak_MiB"))
                r.peakMiB = b.value("peak_MiB").toDouble();
            else if (b.contains("peak_rss_MiB"))
                r.peakMiB = b.value("peak_rss_MiB").toDouble();
            else
                r.peakMiB = sharedWithPeer ? NAN : static_cast<double>(maxrss) / 1024.0;
            r.status = "ok";
            return r;
        }
        r.status = "no benchmark " + bench;
        return r;
    }


    std::string dir_, minTime_;
    std::map<std::string, Raw> cache_;
};

std::string Figure(double v)
{
    if (std::isnan(v)) return "-";
    char buf[32];
    if (std::fabs(v) >= 100)
        std::snprintf(buf, sizeof buf, "%.0f", v);
    else if (std::fabs(v) >= 10)
        std::snprintf(buf, sizeof buf, "%.1f", v);
    else
        std::snprintf(buf, sizeof buf, "%.2f", v);
    return buf;
}

QJsonValue JsonNumber(double v)
{
    return std::isnan(v) ? QJsonValue() : QJsonValue(v);
}

constexpr const char* kUsage = "usage: %s --bin DIR --rows FILE --json OUT [--min-time SECONDS]\n";

}  // namespace

int main(int argc, char** argv)
{
    std::string bin, rowsPath, jsonPath, minTime;
    for (int i = 1; i < argc; ++i) {
        const std::string a = argv[i];
        auto next = [&]() -> std::string { return i + 1 < argc ? argv[++i] : std::string(); };
        if (a == "--bin")
            bin = next();
        else if (a == "--rows")
            rowsPath = next();
        else if (a == "--json")
            jsonPath = next();
        else if (a == "--min-time")
            minTime = next();
        else {
            std::fprintf(stderr, kUsage, argv[0]);
            return 2;
        }
    }
    if (bin.empty() || rowsPath.empty() || jsonPath.empty()) {
        std::fprintf(stderr, kUsage, argv[0]);
        return 2;
    }
    std::vector<Row> rows;
    std::string why;
    if (!ReadRows(rowsPath, rows, why)) {
        std::fprintf(stderr, "bench_report: %s\n", why.c_str());
        return 2;
    }

    Runner runner(bin, minTime);
    struct Line {
        std::string cells[8];
    };
    std::vector<Line> lines;
    QJsonArray jsonRows;
    for (const Row& row : rows) {
        const bool hasPeer = row.peer != "-";
        const bool sameRun = hasPeer && row.peerBinary == row.binary && row.peerBench == row.bench;
        const Result ours = runner.Get(row.binary, row.bench, row.counter, row.counter, sameRun);
        const Result peer = hasPeer ? runner.Get(row.peerBinary, row.peerBench, row.peerCounter, row.counter, sameRun)
                                    : Result{"", NAN, NAN};
        const bool lowBetter = row.better == "low";

        double ratio = NAN;
        if (hasPeer && ours.status == "ok" && peer.status == "ok" && ours.value > 0 && peer.value > 0)
            ratio = lowBetter ? peer.value / ours.value : ours.value / peer.value;
        std::optional<bool> met;
        if (row.goal != "-" && ours.status == "ok") {
            if (row.goal[0] == '<')
                met = ours.value < std::stod(row.goal.substr(1));
            else if (row.goal[0] == '>')
                met = ours.value > std::stod(row.goal.substr(1));
            else if (!std::isnan(ratio))
                met = ratio >= std::stod(row.goal);
        }

        Line l;
        l.cells[0] = row.job;
        l.cells[1] = ours.status == "ok" ? Figure(ours.value) + " " + row.counter : ours.status;
        l.cells[2] = hasPeer ? row.peer : "-";
        l.cells[3] = !hasPeer ? "-" : peer.status == "ok" ? Figure(peer.value) + " " + row.counter : peer.status;
        if (sameRun && peer.status == "ok") l.cells[3] += " (same run)";
        l.cells[4] = std::isnan(ratio) ? "-" : Figure(ratio) + "x";
        l.cells[5] = row.goal == "-" ? "-"
                     : (row.goal[0] == '<' || row.goal[0] == '>') ? row.goal + " " + row.counter
                                                                  : ">= " + row.goal + "x";
        if (met) l.cells[5] += *met ? " met" : " MISSED";
        l.cells[6] = Figure(ours.peakMiB);
        l.cells[7] = hasPeer ? Figure(peer.peakMiB) : "-";
        lines.push_back(l);

        QJsonObject j;
        j["job"] = QString::fromStdString(row.job);
        j["benchmark"] = QString::fromStdString(row.binary + " " + row.bench);
        j["status"] = QString::fromStdString(ours.status);
        j["counter"] = QString::fromStdString(row.counter);
        j["better"] = QString::fromStdString(row.better);
        j["value"] = JsonNumber(ours.value);
        j["peak_MiB"] = JsonNumber(ours.peakMiB);
        if (hasPeer) {
            QJsonObject p;
            p["name"] = QString::fromStdString(row.peer);
            p["benchmark"] = QString::fromStdString(row.peerBinary + " " + row.peerBench);
            p["counter"] = QString::fromStdString(row.peerCounter);
            p["status"] = QString::fromStdString(peer.status);
            p["value"] = JsonNumber(peer.value);
            p["peak_MiB"] = JsonNumber(peer.peakMiB);
            j["peer"] = p;
        } else {
            j["peer"] = QJsonValue();
        }
        j["ratio"] = JsonNumber(ratio);
        j["goal"] = row.goal == "-" ? QJsonValue() : QJsonValue(QString::fromStdString(row.goal));
        j["goal_met"] = met ? QJsonValue(*met) : QJsonValue();
        jsonRows.append(j);
    }

    const char* headers[8] = {"job", "ours", "peer", "peer's", "ratio", "goal", "peak MiB", "peer MiB"};
    std::size_t width[8];
    for (int c = 0; c < 8; ++c) {
        width[c] = std::strlen(headers[c]);
        for (const auto& l : lines) width[c] = std::max(width[c], l.cells[c].size());
    }
    auto printLine = [&](const std::string* cells) {
        std::string s = "|";
        for (int c = 0; c < 8; ++c) s += " " + cells[c] + std::string(width[c] - cells[c].size(), ' ') + " |";
        std::puts(s.c_str());
    };
    std::string head[8], rule[8];
    for (int c = 0; c < 8; ++c) {
        head[c] = headers[c];
        rule[c] = std::string(width[c], '-');
    }
    printLine(head);
    printLine(rule);
    for (const auto& l : lines) printLine(l.cells);

    QJsonObject root;
    root["generated"] = QDateTime::currentDateTimeUtc().toString(Qt::ISODate);
    root["host"] = QSysInfo::machineHostName();
    root["cpu"] = QSysInfo::currentCpuArchitecture();
    root["processors"] = static_cast<int>(sysconf(_SC_NPROCESSORS_ONLN));
    root["min_time"] = minTime.empty() ? QJsonValue() : QJsonValue(QString::fromStdString(minTime));
    root["rows"] = jsonRows;
    QFile f(QString::fromStdString(jsonPath));
    if (!f.open(QIODevice::WriteOnly | QIODevice::Truncate) ||
        f.write(QJsonDocument(root).toJson(QJsonDocument::Indented)) < 0) {
        std::fprintf(stderr, "bench_report: %s: cannot write\n", jsonPath.c_str());
        return 1;
    }
    return 0;
}
