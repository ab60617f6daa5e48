#include "batch/BatchList.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <sstream>

namespace zub::batch {

namespace {

constexpr std::string_view kHeader = "ZUBBATCH 1";
// A list is a few hundred rows; anything far larger is not a list of ours.
constexpr std::size_t kMaxListBytes = 64u << 20;

void Escape(std::string& out, const std::string& field)
{
    for (char c : field) {
        switch (c) {
        case '\\': out += "\\\\"; break;
        case '\t': out += "\\t"; break;
        case '\n': out += "\\n"; break;
        case '\r': out += "\\r"; break;
        default: out += c;
        }
    }
}

bool Unescape(std::string_view field, std::string& out, std::string* why)
{
    out.clear();
    for (std::size_t i = 0; i < field.size(); ++i) {
        const char c = field[i];
        if (c != '\\') {
            out += c;
            continue;
        }
        if (++i == field.size()) {
            *why = "a backslash ends a field";
            return false;
        }
        switch (field[i]) {
        case '\\': out += '\\'; break;
        case 't': out += '\t'; break;
        case 'n': out += '\n'; break;
        case 'r': out += '\r'; break;
        default:
            *why = std::string("unknown escape \\") + field[i];
            return false;
        }
    }
    return true;
}

QString Q(const std::string& s)
{
    return QString::fromStdString(s);
}

}  // namespace

const char* ColumnTitle(int column)
{
    static const char* const titles[kColumnCount] = {"FileName", "Type", "Start", "End", "Props", "Result", "Note"};
    return column >= 0 && column < kColumnCount ? titles[column] : "";
}

int ColumnWidth(int column, int clientWidth)
{
    switch (column) {
    case kColFileName: return clientWidth - 118;
    case kColType: return 50;
    case kColResult: return 60;
    default: return 0;
    }
}

std::string FormatBatchList(const std::vector<BatchRow>& rows)
{
    std::string out(kHeader);
    out += '\n';
    for (const BatchRow& r : rows) {
        Escape(out, r.fileName);
        out += '\t';
        out += std::to_string(r.type);
        for (const std::string* f : {&r.start, &r.end, &r.props, &r.note}) {
            out += '\t';
            Escape(out, *f);
        }
        out += '\n';
    }
    return out;
}

bool ParseBatchList(std::string_view text, std::vector<BatchRow>& rows, std::string* error)
{
    auto fail = [&](std::size_t line, const std::string& why) {
        if (error) *error = "line " + std::to_string(line) + ": " + why;
        return false;
    };
    std::vector<BatchRow> parsed;
    std::size_t lineNo = 0;
    std::size_t pos = 0;
    bool sawHeader = false;
    while (pos < text.size()) {
        std::size_t end = text.find('\n', pos);
        if (end == std::string_view::npos) end = text.size();
        std::string_view line = text.substr(pos, end - pos);
        pos = end + 1;
        ++lineNo;
        if (!line.empty() && line.back() == '\r') line.remove_suffix(1);  // edited on another system
        if (!sawHeader) {
            if (line != kHeader) return fail(lineNo, "not a batch list (the first line must be \"ZUBBATCH 1\")");
            sawHeader = true;
            continue;
        }
        if (line.empty()) continue;
        if (line.find('\0') != std::string_view::npos) return fail(lineNo, "a NUL byte inside a row");
        std::vector<std::string_view> fields;
        std::size_t f = 0;
        while (true) {
            const std::size_t tab = line.find('\t', f);
            fields.push_back(line.substr(f, tab == std::string_view::npos ? std::string_view::npos : tab - f));
            if (tab == std::string_view::npos) break;
            f = tab + 1;
        }
        if (fields.size() != 6) return fail(lineNo, "expected 6 tab-separated fields, found " + std::to_string(fields.size()));
        BatchRow row;
        std::string why;
        if (!Unescape(fields[0], row.fileName, &why)) return fail(lineNo, why);
        if (row.fileName.empty()) return fail(lineNo, "the file name is empty");
        int type = -1;
        const auto [p, ec] = std::from_chars(fields[1].data(), fields[1].data() + fields[1].size(), type);
        if (ec != std::errc() || p != fields[1].data() + fields[1].size() || type < kTypeUnknown || type > kTypeImages)
            return fail(lineNo, "the type must be 0, 1, 2 or 3");
        row.type = type;
        if (!Unescape(fields[2], row.start, &why) || !Unescape(fields[3], row.end, &why) ||
            !Unescape(fields[4], row.props, &why) || !Unescape(fields[5], row.note, &why))
            return fail(lineNo, why);
        parsed.push_back(std::move(row));
    }
    if (!sawHeader) return fail(1, "the file is empty");
    rows = std::move(parsed);
    return true;
}

bool SaveBatchList(const std::string& path, const std::vector<BatchRow>& rows, std::string* error)
{
    // Written beside the target and renamed over it, so a failure never leaves half a list.
    const std::string text = FormatBatchList(rows);
    const std::string temp = path + ".tmp" + std::to_string(::getpid());
    std::FILE* f = std::fopen(temp.c_str(), "wb");
    if (!f) {
        if (error) *error = path + ": cannot write (" + std::strerror(errno) + ")";
        return false;
    }
    const bool wrote = std::fwrite(text.data(), 1, text.size(), f) == text.size();
    const int err = errno;
    const bool closed = std::fclose(f) == 0;
    if (!wrote || !closed || std::rename(temp.c_str(), path.c_str()) != 0) {
        const int e = wrote && closed ? errno : err;
        std::remove(temp.c_str());
        if (error) *error = path + ": cannot write (" + std::strerror(e) + ")";
        return false;
    }
    return true;
}

bool LoadBatchList(const std::string& path, std::vector<BatchRow>& rows, std::string* error)
{
    std::ifstream in(path, std::ios::binary);
    if (!in) {
        if (error) *error = path + ": cannot open (" + std::strerror(errno) + ")";
        return false;
    }
    std::string text;
    char buf[65536];
    while (in.read(buf, sizeof buf) || in.gcount() > 0) {
        text.append(buf, static_cast<std::size_t>(in.gcount()));
        if (text.size() > kMaxListBytes) {
            if (error) *error = path + ": too large for a batch list";
            return false;
        }
    }
    std::string why;
    if (!ParseBatchList(text, rows, &why)) {
        if (error) *error = path + ": " + why;
        return false;
    }
    return true;
}

BatchListModel::BatchListModel(QObject* parent) : QAbstractTableModel(parent) {}

int BatchListModel::rowCount(const QModelIndex& parent) const
{
    return parent.isValid() ? 0 : static_cast<int>(rows_.size());
}

int BatchListModel::columnCount(const QModelIndex& parent) const
{
    return parent.isValid() ? 0 : kColumnCount;
}

QVariant BatchListModel::data(const QModelIndex& index, int role) const
{
    if (!index.isValid() || index.row() < 0 || index.row() >= rowCount()) return {};
    const BatchRow& r = Row(index.row());
    if (role == kTypeRole) return r.type;
    if (role == kFailedRole) return r.failed;
    if (role != Qt::DisplayRole && role != Qt::EditRole && role != Qt::ToolTipRole) return {};
    switch (index.column()) {
    case kColFileName: return Q(r.fileName);
    case kColType: return QString::fromLatin1(TypeName(r.type));
    case kColStart: return Q(r.start);
    case kColEnd: return Q(r.end);
    case kColProps: return Q(r.props);
    case kColResult: return Q(r.result);
    case kColNote: return Q(r.note);
    default: return {};
    }
}

QVariant BatchListModel::headerData(int section, Qt::Orientation orientation, int role) const
{
    if (orientation != Qt::Horizontal || role != Qt::DisplayRole) return {};
    return QString::fromLatin1(ColumnTitle(section));
}

bool BatchListModel::setData(const QModelIndex& index, const QVariant& value, int role)
{
    if (!index.isValid() || index.row() >= rowCount()) return false;
    BatchRow& r = rows_[static_cast<std::size_t>(index.row())];
    if (role == kTypeRole) {
        const int t = value.toInt();
        if (t < kTypeUnknown || t > kTypeImages) return false;
        r.type = t;
    } else if (role == Qt::EditRole) {
        const std::string v = value.toString().toStdString();
        switch (index.column()) {
        case kColFileName: r.fileName = v; break;
        case kColStart: r.start = v; break;
        case kColEnd: r.end = v; break;
        case kColProps: r.props = v; break;
        case kColResult: r.result = v; break;
        case kColNote: r.note = v; break;
        default: return false;
        }
    } else {
        return false;
    }
    emit dataChanged(this->index(index.row(), 0), this->index(index.row(), kColumnCount - 1));
    return true;
}

bool BatchListModel::removeRows(int row, int count, const QModelIndex& parent)
{
    if (parent.isValid() || row < 0 || count <= 0 || row + count > rowCount()) return false;
    beginRemoveRows({}, row, row + count - 1);
    rows_.erase(rows_.begin() + row, rows_.begin() + row + count);
    endRemoveRows();
    return true;
}

void BatchListModel::SetRows(std::vector<BatchRow> rows)
{
    beginResetModel();
    rows_ = std::move(rows);
    endResetModel();
}

int BatchListModel::AddFile(const std::string& path, const TypeFilter& filter, const std::string& props)
{
    BatchRow row;
    row.fileName = path;
    row.type = filter.Classify(path);
    row.props = props;
    const int at = rowCount();
    InsertRows(at, {row});
    return at;
}

void BatchListModel::InsertRows(int at, const std::vector<BatchRow>& rows)
{
    if (rows.empty()) return;
    at = std::clamp(at, 0, rowCount());
    beginInsertRows({}, at, at + static_cast<int>(rows.size()) - 1);
    rows_.insert(rows_.begin() + at, rows.begin(), rows.end());
    endInsertRows();
}

void BatchListModel::SortByFileName()
{
    emit layoutAboutToBeChanged();
    std::stable_sort(rows_.begin(), rows_.end(), [](const BatchRow& a, const BatchRow& b) {
        const int c = QString::compare(Q(a.fileName), Q(b.fileName), Qt::CaseInsensitive);
        return c != 0 ? c < 0 : a.fileName < b.fileName;
    });
    emit layoutChanged();
}

void BatchListModel::SetResult(int row, const std::string& text, bool failed)
{
    if (row < 0 || row >= rowCount()) return;
    rows_[static_cast<std::size_t>(row)].result = text;
    rows_[static_cast<std::size_t>(row)].failed = failed;
    emit dataChanged(index(row, 0), index(row, kColumnCount - 1));
}

void BatchListModel::ClearResults()
{
    for (int r = 0; r < rowCount(); ++r) SetResult(r, {}, false);
}

void BatchListModel::SetNote(int row, const std::string& text, bool append)
{
    if (row < 0 || row >= rowCount()) return;
    std::string& note = rows_[static_cast<std::size_t>(row)].note;
    note = append ? note + text : text;
    emit dataChanged(index(row, kColNote), index(row, kColNote));
}

}  // namespace zub::batch
