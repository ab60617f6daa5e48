// Keeps a half-written target from surviving a failure: the guard deletes its file when it
// goes out of scope unless the writer released it after the final close succeeded.
#pragma once

#include <string>
#include <utility>

namespace zub {

class CDeleteOnFail {
public:
    CDeleteOnFail() = default;
    explicit CDeleteOnFail(std::string path) : path_(std::move(path)) {}
    ~CDeleteOnFail();
    CDeleteOnFail(const CDeleteOnFail&) = delete;
    CDeleteOnFail& operator=(const CDeleteOnFail&) = delete;

    void Arm(std::string path) { path_ = std::move(path); }
    // The file is complete: keep it.
    void Release() { path_.clear(); }
    const std::string& Path() const { return path_; }

private:
    std::string path_;
};

}  // namespace zub
