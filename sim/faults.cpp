// Scripted faults: argument reading and description.
#include "faults.h"

#include "library_codes.h"

#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstdlib>

namespace kelsim {
namespace {

bool parseUnsigned(const std::string &text, uint64_t limit, uint64_t *value) {
    if (text.empty() || text[0] == '-' || text[0] == '+' || text[0] == ' ') {
        return false;
    }
    errno = 0;
    char *end = nullptr;
    unsigned long long number = strtoull(text.c_str(), &end, 0);
    if (errno != 0 || end == nullptr || *end != '\0' || number > limit) {
        return false;
    }
    *value = number;
    return true;
}

bool parseHexBytes(const std::string &text, std::vector<uint8_t> *bytes) {
    std::string digits;
    for (char c : text) {
        if (c == ' ' || c == ':') {
            continue;
        }
        if (!isxdigit(static_cast<unsigned char>(c))) {
            return false;
        }
        digits += c;
    }
    if (digits.size() % 2 != 0) {
        return false;
    }
    bytes->clear();
    for (size_t i = 0; i < digits.size(); i += 2) {
        bytes->push_back(static_cast<uint8_t>(strtoul(digits.substr(i, 2).c_str(), nullptr, 16)));
    }
    return true;
}

} // namespace

bool parseFaultArguments(const std::vector<std::string> &args, ScriptedFault *fault, int *count, std::string *error) {
    *fault = ScriptedFault();
    *count = 1;
    if (args.empty()) {
        *error = "which fault?";
        return false;
    }
    const std::string &kind = args[0];
    bool takesValue = false, valueRequired = false, takesDetail = false;
    uint64_t limit = UINT32_MAX;
    if (kind == fault_kind::kPassStatus) {
        takesValue = valueRequired = takesDetail = true;
        limit = 255;
    } else if (kind == fault_kind::kInitFail || kind == fault_kind::kContInfoFail ||
               kind == fault_kind::kRaidStatusFail) {
        takesValue = valueRequired = true;
    } else if (kind == fault_kind::kDriveInfoFail) {
        takesValue = true;
        fault->value = kErrorDriveInfoUnavailable;
    } else if (kind != fault_kind::kNoController) {
        *error = "unknown fault \"" + kind + "\"";
        return false;
    }
    fault->kind = kind;
    bool haveValue = false;
    for (size_t i = 1; i < args.size(); i++) {
        const std::string &arg = args[i];
        bool hasNext = i + 1 < args.size();
        if (arg == "--count") {
            uint64_t n;
            if (!hasNext || !parseUnsigned(args[++i], 1000000, &n) || n == 0) {
                *error = "--count wants a number from 1 to 1000000";
                return false;
            }
            *count = static_cast<int>(n);
        } else if (arg == "--detail-hex" && takesDetail) {
            if (!hasNext || !parseHexBytes(args[++i], &fault->detail) || fault->detail.size() > 260) {
                *error = "--detail-hex wants up to 260 bytes as pairs of hexadecimal digits";
                return false;
            }
        } else if (arg == "--detail-text" && takesDetail) {
            if (!hasNext || args[i + 1].size() > 259) {
                *error = "--detail-text wants a text of up to 259 characters";
                return false;
            }
            const std::string &text = args[++i];
            fault->detail.assign(text.begin(), text.end());
            fault->detail.push_back(0);
        } else if (takesValue && !haveValue) {
            uint64_t value;
            if (!parseUnsigned(arg, limit, &value) || (kind == fault_kind::kPassStatus && value == 0)) {
                *error = kind == fault_kind::kPassStatus ? "pass-status wants a status from 1 to 255"
                                                         : kind + " wants an error code (decimal or 0x hex)";
                return false;
            }
            fault->value = static_cast<uint32_t>(value);
            haveValue = true;
        } else {
            *error = "unexpected argument \"" + arg + "\"";
            return false;
        }
    }
    if (valueRequired && !haveValue) {
        *error = kind + (kind == fault_kind::kPassStatus ? " wants a status" : " wants an error code");
        return false;
    }
    return true;
}

std::string describeFault(const ScriptedFault &fault, int remaining) {
    char text[64];
    std::string line = fault.kind;
    if (fault.kind == fault_kind::kPassStatus) {
        line += " " + std::to_string(fault.value);
    } else if (fault.kind != fault_kind::kNoController) {
        snprintf(text, sizeof text, " 0x%08X", fault.value);
        line += text;
    }
    if (!fault.detail.empty()) {
        line += " detail=";
        for (uint8_t byte : fault.detail) {
            snprintf(text, sizeof text, "%02X", byte);
            line += text;
        }
    }
    return line + " count=" + std::to_string(remaining);
}

} // namespace kelsim
