// What the state store's files share about running SQLite statements.
#pragma once

#include <sqlite3.h>

#include <cstdint>
#include <vector>

namespace kelsim {
namespace store_detail {

// Resets a cached statement when the function using it returns.
class StatementUse {
  public:
    explicit StatementUse(sqlite3_stmt *stmt) : stmt_(stmt) {}
    ~StatementUse() {
        if (stmt_ != nullptr) {
            sqlite3_reset(stmt_);
            sqlite3_clear_bindings(stmt_);
        }
    }
    StatementUse(const StatementUse &) = delete;
    StatementUse &operator=(const StatementUse &) = delete;

  private:
    sqlite3_stmt *stmt_;
};

inline std::vector<uint8_t> blobColumn(sqlite3_stmt *stmt, int column) {
    const auto *data = static_cast<const uint8_t *>(sqlite3_column_blob(stmt, column));
    int size = sqlite3_column_bytes(stmt, column);
    return data != nullptr && size > 0 ? std::vector<uint8_t>(data, data + size) : std::vector<uint8_t>();
}

// An empty vector's data() may be null, which SQLite would store as NULL.
inline void bindBlob(sqlite3_stmt *stmt, int index, const std::vector<uint8_t> &bytes) {
    if (bytes.empty()) {
        sqlite3_bind_zeroblob(stmt, index, 0);
    } else {
        sqlite3_bind_blob(stmt, index, bytes.data(), static_cast<int>(bytes.size()), SQLITE_STATIC);
    }
}

} // namespace store_detail
} // namespace kelsim
