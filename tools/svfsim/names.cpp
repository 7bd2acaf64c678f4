#include "names.h"

#include <array>
#include <cctype>
#include <cstdio>
#include <cstdlib>

#include "BraskSvf/svfTypes.h"
#include "command/eventSlots.h"
#include "common/eventCodes.h"
#include "event/eventNames.h"

namespace svfsim {
namespace {

struct Completion {
    std::uint8_t code;
    const char* meaning;
    const char* getMeaning;  // where Get Backup/Restore Event means something else
};

constexpr std::array<Completion, 12> kCompletions{{
    {SVF_CC_NORMAL, "success", nullptr},
    {SVF_CC_NO_EVENT_OR_FAIL, "the operation failed", "no backup or restore event exists"},
    {SVF_CC_CHECKSUM_ERROR, "checksum of the backup file or of an archive block does not match", nullptr},
    {SVF_CC_FW_TYPE_MISMATCH, "firmware type in the backup file differs from the requested one", nullptr},
    {SVF_CC_IDENTITY_MISMATCH, "model or serial number in the backup file differs from this server's",
     nullptr},
    {SVF_CC_UNKNOWN_DATA_REV, "unknown data revision", nullptr},
    {SVF_CC_UNKNOWN_FORMAT, "unknown file format", nullptr},
    {SVF_CC_LOCK_FAIL, "a lock was not obtained", nullptr},
    {SVF_CC_SEMIVOL_FAIL, "the shared semi-volatile area could not be mapped", nullptr},
    {SVF_CC_REQ_INV_LEN, "request data length invalid", nullptr},
    {SVF_CC_PARAM_OUT_OF_RANGE, "parameter out of range", nullptr},
    {SVF_CC_NOT_IN_PRESENT_STATE,
     "not possible in the present state (a restore timer runs or another event is active)", nullptr},
}};

constexpr std::array<SelClass, 4> kSelClasses{{
    {SEL_CLASS_GENERATED, "SEL_CLASS_GENERATED", "requested"},
    {SEL_CLASS_SUCCESS, "SEL_CLASS_SUCCESS", "completed"},
    {SEL_CLASS_FAIL, "SEL_CLASS_FAIL", "failed"},
    {SEL_CLASS_OTHER_RUNNING, "SEL_CLASS_OTHER_RUNNING", "refused: another event was active"},
}};

bool equalNoCase(std::string_view a, std::string_view b) {
    if (a.size() != b.size()) return false;
    for (std::size_t i = 0; i < a.size(); ++i) {
        if (std::tolower(static_cast<unsigned char>(a[i])) != std::tolower(static_cast<unsigned char>(b[i])))
            return false;
    }
    return true;
}

std::optional<unsigned> number(std::string_view text, unsigned max) {
    if (text.empty()) return std::nullopt;
    const std::string s(text);
    char* end = nullptr;
    const unsigned long v = std::strtoul(s.c_str(), &end, 0);
    if (end == nullptr || *end != '\0' || v > max) return std::nullopt;
    return static_cast<unsigned>(v);
}

}  // namespace

std::string hex2(unsigned value) {
    char buf[8];
    (void)std::snprintf(buf, sizeof buf, "0x%02X", value & 0xFFu);
    return buf;
}

std::string slotName(unsigned index) {
    if (index >= brask::slots::kEventSlots.size()) return "slot " + std::to_string(index);
    // The table's texts are "<slot name> > ST_GENERATED".
    const std::string_view text = brask::slots::kEventSlots[index].runningText;
    return std::string(text.substr(0, text.find(' ')));
}

std::optional<unsigned> slotByName(std::string_view text) {
    for (unsigned i = 0; i < brask::slots::kEventSlots.size(); ++i) {
        if (equalNoCase(text, slotName(i))) return i;
    }
    return number(text, SVF_EVENT_SLOT_COUNT - 1);
}

std::string stateName(std::uint8_t code) {
    const std::string_view name = brask::events::nameOf(brask::events::kStateNames, code);
    return name == "?" ? "unknown (" + hex2(code) + ")" : std::string(name);
}

std::string operationName(std::uint8_t code) {
    const std::string_view name = brask::events::nameOf(brask::events::kOperationNames, code);
    return name == "?" ? "unknown (" + hex2(code) + ")" : std::string(name);
}

std::optional<std::uint8_t> operationByName(std::string_view text) {
    for (const auto& op : brask::events::kOperationNames) {
        if (equalNoCase(text, op.text)) return op.code;
    }
    if (auto v = number(text, 0xFF)) return static_cast<std::uint8_t>(*v);
    return std::nullopt;
}

std::string operationList() {
    std::string list;
    for (const auto& op : brask::events::kOperationNames) {
        list += (list.empty() ? "" : ", ") + std::string(op.text);
    }
    return list;
}

std::string completionMeaning(std::uint8_t code, Handler handler) {
    for (const Completion& c : kCompletions) {
        if (c.code != code) continue;
        return handler == Handler::Get && c.getMeaning != nullptr ? c.getMeaning : c.meaning;
    }
    return "unknown completion code";
}

const SelClass* selClass(std::uint8_t eventData) {
    for (const SelClass& c : kSelClasses) {
        if (c.code == brask::selEventClass(eventData)) return &c;
    }
    return nullptr;
}

}  // namespace svfsim
