// The batch list: one row per file to import, shown by the "Files Selected" list with the
// columns FileName, Type, Start, End, Props, Result and Note, the type kept as the row's item
// data. Lists can be kept as a small text file so a prepared batch can be run again.
#pragma once

#include <QAbstractTableModel>

#include <string>
#include <string_view>
#include <vector>

#include "batch/TypeFilter.h"

namespace zub::batch {

enum BatchColumn : int {
    kColFileName = 0,
    kColType = 1,
    kColStart = 2,
    kColEnd = 3,
    kColProps = 4,
    kColResult = 5,
    kColNote = 6,
    kColumnCount = 7,
};

const char* ColumnTitle(int column);  // "FileName", "Type", ...
// Width of a column in a list of the given client width: the file name takes what the Type
// (50) and Result (60) columns and a margin leave; Start, End, Props and Note are hidden (0).
int ColumnWidth(int column, int clientWidth);

struct BatchRow {
    std::string fileName;
    int type = kTypeVideo;
    std::string start, end;
    std::string props;   // settings string handed to the importer
    std::string result;  // shown after the import
    std::string note;    // handed to the companion program
    bool failed = false;

    bool operator==(const BatchRow&) const = default;
};

// Saved form: a first line "ZUBBATCH 1", then one line per row of tab-separated fields
// file name, type number, start, end, props, note; tab, newline, carriage return and backslash
// inside a field are written as \t \n \r \\. Results are not kept: they belong to a run.
std::string FormatBatchList(const std::vector<BatchRow>& rows);
// Parses text from any source; false with "line N: reason" in *error for anything malformed.
bool ParseBatchList(std::string_view text, std::vector<BatchRow>& rows, std::string* error);
// Files: false with "path: reason" in *error. A failed save leaves no partial file behind.
bool SaveBatchList(const std::string& path, const std::vector<BatchRow>& rows, std::string* error);
bool LoadBatchList(const std::string& path, std::vector<BatchRow>& rows, std::string* error);

// The list as a Qt item model, for the dialog and for hosts that show it.
class BatchListModel : public QAbstractTableModel {
public:
    // Item data of the Type column (and of every cell under this role): the BatchType.
    static constexpr int kTypeRole = Qt::UserRole + 1;
    static constexpr int kFailedRole = Qt::UserRole + 2;

    explicit BatchListModel(QObject* parent = nullptr);

    int rowCount(const QModelIndex& parent = {}) const override;
    int columnCount(const QModelIndex& parent = {}) const override;
    QVariant data(const QModelIndex& index, int role = Qt::DisplayRole) const override;
    QVariant headerData(int section, Qt::Orientation orientation, int role = Qt::DisplayRole) const override;
    bool setData(const QModelIndex& index, const QVariant& value, int role = Qt::EditRole) override;
    bool removeRows(int row, int count, const QModelIndex& parent = {}) override;

    const std::vector<BatchRow>& Rows() const { return rows_; }
    const BatchRow& Row(int r) const { return rows_.at(static_cast<std::size_t>(r)); }
    void SetRows(std::vector<BatchRow> rows);
    // Adds a file classified by the filter; the index of the new row.
    int AddFile(const std::string& path, const TypeFilter& filter, const std::string& props = {});
    void InsertRows(int at, const std::vector<BatchRow>& rows);
    // Sorts whole rows by file name (case-insensitive, then byte order, stable).
    void SortByFileName();
    void SetResult(int row, const std::string& text, bool failed);
    void ClearResults();
    // The Note dialog: replace the note, or append the text to it.
    void SetNote(int row, const std::string& text, bool append);

private:
    std::vector<BatchRow> rows_;
};

}  // namespace zub::batch
