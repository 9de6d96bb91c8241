// SPDX-License-Identifier: Apache-2.0
#include "model/steps.h"

#include <algorithm>
#include <arpa/inet.h>
#include <cstdlib>
#include <ctime>
#include <random>

namespace model {

// ---- formats ---------------------------------------------------------------------------

namespace {

struct FormatRow {
    const char *format;
    const char *pieces[4]; // of the text around the arguments
    int arguments;
};

const FormatRow FORMATS[] = {
    {"%s", {"", ""}, 1},
    {"%s %d", {"", " ", ""}, 2},
    {"disk %s: %d of %u left", {"disk ", ": ", " of ", " left"}, 3},
    {"<%s>", {"<", ">"}, 1},
    {"nothing but words, no arguments", {"nothing but words, no arguments"}, 0},
    {"%s is %d%% full", {"", " is ", "% full"}, 2},
};

const FormatRow &rowOf(Format format) {
    return FORMATS[static_cast<size_t>(format)];
}

std::vector<std::string> argumentsOf(const MessageCall &call) {
    return {call.text, std::to_string(call.first), std::to_string(call.second)};
}

std::string rendered(const MessageCall &call) {
    const FormatRow &row = rowOf(call.format);
    const std::vector<std::string> arguments = argumentsOf(call);
    std::string text = row.pieces[0];
    for (int i = 0; i < row.arguments; ++i)
        text += arguments[static_cast<size_t>(i)] + row.pieces[i + 1];
    return text;
}

Item argumentItem(const MessageCall &call, int which, bool utf8) {
    const char kinds[] = {utf8 ? 'X' : 'S', 'i', 'u'};
    return {kinds[which], argumentsOf(call)[static_cast<size_t>(which)]};
}

// The arguments alone, for a message of a catalogue.
Block catalogueBlock(const MessageCall &call, bool utf8) {
    Block block;
    block.number = call.number;
    for (int i = 0; i < rowOf(call.format).arguments; ++i)
        block.items.push_back(argumentItem(call, i, utf8));
    return block;
}

// The text with its arguments, each an item.
Block textBlock(const MessageCall &call) {
    const FormatRow &row = rowOf(call.format);
    Block block;
    const auto addPiece = [&](const char *piece) {
        if (*piece != '\0')
            block.items.push_back({'S', piece});
    };
    addPiece(row.pieces[0]);
    for (int i = 0; i < row.arguments; ++i) {
        block.items.push_back(argumentItem(call, i, false));
        addPiece(row.pieces[i + 1]);
    }
    return block;
}

// No catalogue has the message: its number, and the arguments as they are.
std::string withoutCatalogue(const Block &block) {
    std::string text = "[Cannot find catalog for message id=" + std::to_string(block.number) + "] ";
    for (size_t i = 0; i < block.items.size(); ++i)
        text += (i > 0 ? "," : "") + block.items[i].text;
    return text;
}

} // namespace

const char *formatText(Format format) {
    return rowOf(format).format;
}

// ---- messages of the model -------------------------------------------------------------------

namespace {

enum class Family { App, Diag, Audit, Secure, Debug, Raw };

Family familyOf(Call call) {
    return call <= Call::App2Lex     ? Family::App
           : call <= Call::Diag2L    ? Family::Diag
           : call <= Call::Audit2L   ? Family::Audit
           : call <= Call::SecureL   ? Family::Secure
           : call <= Call::Formatted ? Family::Debug
                                     : Family::Raw;
}

bool isOneOf(Call call, std::initializer_list<Call> calls) {
    return std::find(calls.begin(), calls.end(), call) != calls.end();
}

bool takesReadyText(Call call) {
    return isOneOf(call, {Call::App2L, Call::App2Lex, Call::Diag2L, Call::Audit2L, Call::SecureL});
}

uint32_t raw(Model *model, Handle *handle, const MessageCall &call) {
    const std::optional<Message> begun = model->begin(handle, call.type);
    if (!begun)
        return 3;
    if (call.call == Call::RawMessage && call.type != 5)
        model->refreshHost();
    Message message = *begun;
    message.timestampMs += call.shiftMs;
    message.text = call.text;
    message.who = call.who;
    message.grade = call.grade;
    message.outcome = call.outcome;
    if (call.call == Call::RawMessage)
        return model->dispatch(handle, &message);
    if (call.withBlock) // straight into the file it keeps its block
        message.block = textBlock(call);
    return model->write(handle->series.get(), message, true);
}

uint32_t sendTo(Model *model, Handle *handle, const MessageCall &call) {
    constexpr uint32_t KEEP_LOCAL_TEXT = 8;
    constexpr uint32_t NO_ID = 16;
    const Family family = familyOf(call.call);
    if (family == Family::Raw)
        return raw(model, handle, call);
    uint32_t flags = call.flags;
    if (isOneOf(call.call, {Call::App, Call::AppEx, Call::Diag, Call::Audit, Call::Debug, Call::Formatted}))
        flags |= NO_ID;
    std::optional<std::string> text;
    Block block;
    if (takesReadyText(call.call)) {
        if (!call.noText && family != Family::Audit && family != Family::Secure)
            text = call.text;
        if (call.withBlock)
            block = textBlock(call);
        if ((family == Family::App || family == Family::Diag) && (flags & KEEP_LOCAL_TEXT) != 0 && !text)
            return 3;
    } else if (call.call == Call::Formatted) {
        text = call.text;
    } else if (family == Family::Debug) {
        text = rendered(call);
    } else {
        if ((family == Family::Audit || family == Family::Secure) && call.number == 0)
            return 3;
        if (call.number != 0)
            block = catalogueBlock(call, handle->utf8);
        if (call.number == 0 ||
            ((flags & KEEP_LOCAL_TEXT) != 0 && family != Family::Audit && family != Family::Secure))
            text = rendered(call);
    }
    // Filters. Those that format look for a changed configuration first.
    uint32_t limit = UINT32_MAX;
    if (family == Family::Diag) {
        if (call.call != Call::Diag2L)
            model->reload(handle);
        limit = handle->diagLevel;
    } else if (family == Family::Debug && call.call != Call::Formatted) {
        model->reload(handle);
        limit = handle->debugLevel;
    } else if (family == Family::Secure) {
        limit = handle->secureLevel;
    }
    const bool itself = model->mutation == Mutation::LevelItselfIsFiltered && limit == call.grade;
    if (limit < call.grade || itself)
        return 0;
    const unsigned types[] = {2, 1, 4, 5, 0};
    model->refreshHost();
    const std::optional<Message> begun = model->begin(handle, types[static_cast<size_t>(family)]);
    if (!begun)
        return 3;
    Message message = *begun;
    if (family == Family::Secure)
        message.id = 0;
    else if ((flags & NO_ID) == 0)
        message.id = call.id;
    message.grade = call.grade;
    message.outcome = call.outcome;
    message.who = call.who;
    if (isOneOf(call.call, {Call::App, Call::App2, Call::App2V, Call::App2L}))
        message.who.clear();
    if ((family == Family::Diag || family == Family::Debug) && (call.grade < 1 || call.grade > 6))
        return 1;
    message.text = text;
    if (!text && !block.items.empty()) {
        if (block.number != 0) {
            message.text = withoutCatalogue(block);
        } else {
            std::string all;
            for (const Item &item : block.items)
                all += item.text;
            message.text = all;
        }
    } else if (!text && block.number != 0) {
        message.text = withoutCatalogue(block);
    }
    return model->dispatch(handle, &message);
}

} // namespace

Step fitted(const Model &model, const Step &step) {
    if (step.op != Op::Message || step.message.fit == MessageCall::NO_FIT)
        return step;
    Step made = step;
    MessageCall &call = made.message;
    call.call = Call::App2Ex;
    call.number = 0;
    call.flags = 0;
    call.grade = 3;
    call.format = Format::Text;
    call.text = "too far";
    call.count = 1;
    const Handle &handle = model.handles[step.slot];
    if (handle.series == nullptr || handle.series->file == nullptr)
        return made;
    const uint64_t limit = handle.series->settings.maxKB * 1024;
    const uint64_t size = handle.series->file->bytes.size();
    if (limit > 64 * 1024 || size + 300 > limit)
        return made;
    Message message;
    message.type = 2;
    message.originator = handle.originator;
    message.id = call.id;
    message.timestampMs = model.world.clock.wallMs;
    if (handle.isContext)
        message.token = handle.context.who;
    message.who = call.who;
    message.grade = call.grade;
    const uint64_t wanted = limit - size + static_cast<uint64_t>(static_cast<int64_t>(call.fit));
    for (uint64_t length = wanted - 250; length < wanted; ++length) {
        message.text = std::string(length, 'f');
        const uint64_t record = model.recordLength(&handle, message);
        if (record >= wanted) {
            call.text = *message.text;
            break;
        }
    }
    return made;
}

// ---- steps of the model ----------------------------------------------------------------------

uint64_t hostIdOf(const std::string &address) {
    unsigned parts[4] = {};
    sscanf(address.c_str(), "%u.%u.%u.%u", &parts[0], &parts[1], &parts[2], &parts[3]);
    return parts[0] | parts[1] << 8 | parts[2] << 16 | parts[3] << 24;
}

bool isPossible(const Model &model, const Step &step) {
    const Handle &handle = model.handles[step.slot];
    const bool isOpen = handle.series != nullptr;
    const bool context = handle.isContext || handle.unlisted;
    switch (step.op) {
    case Op::Open:
    case Op::OpenLogset:
        return !isOpen;
    case Op::Close:
        return isOpen && !context;
    case Op::DestroyContext:
        return isOpen && context;
    case Op::CreateContext:
        return !isOpen && step.slot != step.other && model.handles[step.other].series != nullptr;
    case Op::TimePasses:
    case Op::ClockIsSet:
    case Op::Configure:
    case Op::Host:
    case Op::Device:
    case Op::Files:
        return true;
    default:
        return isOpen;
    }
}

Outcome apply(Model *model, const Step &step) {
    Handle *handle = &model->handles[step.slot];
    uint32_t *const levels[] = {&handle->debugLevel, &handle->diagLevel, &handle->secureLevel};
    switch (step.op) {
    case Op::Open:
        return {model->open(step.slot, step.product, step.originator, step.fileOriginator),
                handle->series != nullptr};
    case Op::OpenLogset:
        return {model->openLogset(step.slot, step.product, step.originator, step.set),
                handle->series != nullptr};
    case Op::Close:
        return {model->close(step.slot), handle->series != nullptr};
    case Op::Message: {
        const uint64_t before = handle->sequence;
        Outcome outcome = {sendTo(model, handle, step.message), 0};
        if (outcome.result == 1 && model->mutation == Mutation::RefusedRecordKeepsItsNumber)
            handle->sequence = before;
        outcome.value = handle->sequence;
        return outcome;
    }
    case Op::CreateContext: {
        const Handle &parent = model->handles[step.other];
        std::optional<std::string> token;
        if (!step.noToken)
            token = step.token;
        std::optional<std::string> text;
        if (step.message.number == 0)
            text = rendered(step.message);
        const Block block =
            step.message.number != 0 ? catalogueBlock(step.message, parent.utf8) : textBlock(step.message);
        return {model->createContext(step.other, step.slot, token, text, block), handle->series != nullptr};
    }
    case Op::DestroyContext:
        return {model->destroyContext(step.slot), handle->series != nullptr};
    case Op::SetLevel:
        *levels[step.which] = static_cast<uint32_t>(step.value);
        return {};
    case Op::GetLevel:
        if (step.which < 2)
            model->reload(handle);
        return {0, *levels[step.which]};
    case Op::SetSequence:
        handle->sequence = step.value;
        return {};
    case Op::GetSequence:
        return {0, handle->sequence};
    case Op::SetUtf8:
        handle->utf8 = step.value != 0;
        return {};
    case Op::TimePasses:
        model->world.clock.wallMs += step.ms;
        model->world.clock.steadyMs += std::min(step.ms, AWAKE_MS);
        return {};
    case Op::ClockIsSet:
        model->world.clock.wallMs += step.ms;
        return {};
    case Op::Configure:
        model->world.configuration = step.configuration;
        model->world.configuration.changed = model->seconds();
        return {};
    case Op::Host:
        model->world.hostName = step.hostName;
        model->world.hostId = hostIdOf(step.hostAddress);
        return {};
    case Op::Device:
        model->world.deviceEnds = step.which != 0;
        model->world.room = step.value;
        model->world.deviceIsFull = step.which == 1;
        return {};
    case Op::Files:
        break;
    }
    return {};
}

// ---- files that others touch -------------------------------------------------------------------

namespace {

std::string headerFor(const Series &series, const Model &model, int kind) {
    const std::string ids = std::to_string(series.product) + "," + std::to_string(series.originator) + ",";
    const std::string now = std::to_string(model.seconds() - 100);
    const std::string own =
        series.settings.isLogset ? "$Header 65544,0,hostB\n" : "$Header 65543," + ids + now + ",0,hostB\n";
    switch (kind % 8) {
    case 0:
        return own;
    case 1:
        return "$Header 65542," + ids + now + ",hostB\n";
    case 2:
        return series.settings.isLogset ? "$Header 65543," + ids + now + ",0,hostB\n"
                                        : "$Header 65544,0,hostB\n";
    case 3:
        return "";
    case 4:
        return "no header at all\n";
    case 5:
        return own + "2,5,7,7,1,1,1,1,0:,3:cut";
    case 6:
        return own.substr(0, own.size() - 1);
    default:
        return "$Header 65545," + ids + "\n";
    }
}

} // namespace

FileAction resolve(const Model &model, const Step &step) {
    const World &world = model.world;
    const Handle &handle = model.handles[step.slot];
    const Series *series = handle.series.get();
    FileAction action;
    const auto pickFile = [&]() -> const std::pair<const std::string, NodePtr> * {
        if (world.files.empty())
            return nullptr;
        // The open file more often than others
        if (series != nullptr && series->file != nullptr && series->file->named && step.pick % 3 != 0)
            for (const auto &file : world.files)
                if (file.second == series->file)
                    return &file;
        return &*std::next(world.files.begin(), static_cast<long>(step.pick % world.files.size()));
    };
    const auto *file = pickFile();
    switch (step.fileOp) {
    case FileOp::Remove:
        if (file != nullptr)
            action = {FileAction::REMOVE, file->first, "", "", 0};
        break;
    case FileOp::Truncate:
        if (file != nullptr && file->second->kind == NodeKind::File)
            action = {FileAction::TRUNCATE, file->first, "", "",
                      file->second->bytes.size() * (step.value % 10) / 10};
        break;
    case FileOp::Append:
        if (file != nullptr && file->second->kind == NodeKind::File)
            action = {FileAction::APPEND, file->first, "", step.bytes, 0};
        break;
    case FileOp::Replace:
        if (file != nullptr && file->second->kind == NodeKind::File)
            action = {FileAction::WRITE, file->first, "", step.bytes, 0};
        break;
    case FileOp::Rename:
        if (file != nullptr && file->second->kind == NodeKind::File) {
            const size_t name = file->first.rfind('/') + 1;
            const std::string to = step.value % 2 == 0
                                       ? file->first + ".1"
                                       : file->first.substr(0, name) + "old-" + file->first.substr(name);
            if (world.files.count(to) == 0)
                action = {FileAction::RENAME, file->first, to, "", 0};
        }
        break;
    case FileOp::PlantNext:
    case FileOp::PlantFuture: {
        if (series == nullptr || series->settings.directory.empty() ||
            world.directories.count(series->settings.directory) == 0)
            break;
        const int64_t ahead = step.fileOp == FileOp::PlantNext ? 1 : 2 + static_cast<int64_t>(step.value % 3);
        std::string path;
        if (series->settings.isLogset) {
            path = model.pathOfSecond(*series, model.seconds() + ahead);
        } else {
            const time_t now = model.seconds() + (step.value % 5 == 0 ? 86400 : 0);
            tm local = {};
            localtime_r(&now, &local);
            const Date today = {local.tm_year - 100, local.tm_mon + 1, local.tm_mday};
            const bool same = today.day == series->date.day && today.month == series->date.month;
            uint64_t counter = (same ? series->counter : UINT64_MAX) + static_cast<uint64_t>(ahead);
            // Not more than ten digits: the search for the latest file reads no more.
            if (step.fileOp == FileOp::PlantFuture && step.value % 11 == 0)
                counter = step.value % 2 == 0 ? 4999999999 : 9999999000;
            path = model.pathOfCounter(*series, today, counter);
        }
        if (world.files.count(path) != 0)
            break;
        if (step.which == 100 && !series->settings.isLogset)
            action = {FileAction::MAKE_DIRECTORY, path, "", "", 0};
        else if (step.which == 101 && !series->settings.isLogset)
            action = {FileAction::MAKE_LINK, path, "", "", 0};
        else
            action = {FileAction::WRITE, path, "",
                      headerFor(*series, model, step.which) +
                          (series->settings.isLogset || step.value % 2 == 0 ? "" : step.bytes),
                      0};
        break;
    }
    case FileOp::PlantOther: {
        const char *const names[] = {"5-7-1-310101-0000000003.log",
                                     "6-7-83886090-310101-0000000003.log",
                                     "notes.log",
                                     "readme",
                                     "5-9-83886090-310101-0000000001.log",
                                     "5-other-310101000000.log"};
        if (world.directories.empty())
            break;
        const std::string path = *world.directories.begin() + names[step.pick % 6];
        if (world.files.count(path) == 0)
            action = {FileAction::WRITE, path, "", "$Header 65543,5,7,1900000000,0,hostC\n", 0};
        break;
    }
    case FileOp::RemoveDirectory:
        if (series != nullptr && world.directories.count(series->settings.directory) != 0)
            action = {FileAction::REMOVE_TREE, series->settings.directory, "", "", 0};
        break;
    case FileOp::BlockDirectory: {
        const bool known = series != nullptr && !series->settings.directory.empty();
        const std::string directory = known ? series->settings.directory : "log/";
        const std::string name = directory.substr(0, directory.find('/'));
        if (world.files.count(name) == 0)
            action = {FileAction::BLOCK, name, "", "in the way", 0};
        break;
    }
    case FileOp::End:
        break;
    }
    return action;
}

void apply(Model *model, const FileAction &action) {
    World &world = model->world;
    const auto remove = [&](const std::string &path) {
        world.files.at(path)->named = false;
        world.files.erase(path);
    };
    const auto removeTree = [&](const std::string &directory) {
        const auto lies = [&](const std::string &path) {
            return path.compare(0, directory.size(), directory) == 0;
        };
        std::vector<std::string> paths;
        for (const auto &file : world.files)
            if (lies(file.first))
                paths.push_back(file.first);
        for (const std::string &path : paths)
            remove(path);
        for (auto at = world.directories.begin(); at != world.directories.end();)
            at = lies(*at) ? world.directories.erase(at) : std::next(at);
    };
    switch (action.kind) {
    case FileAction::NOTHING:
        return;
    case FileAction::REMOVE:
        remove(action.path);
        return;
    case FileAction::TRUNCATE:
        world.files.at(action.path)->bytes.resize(action.size);
        break;
    case FileAction::APPEND:
        world.files.at(action.path)->bytes += action.bytes;
        break;
    case FileAction::WRITE:
        if (world.files.count(action.path) != 0)
            remove(action.path);
        world.files[action.path] = std::make_shared<Node>();
        world.files[action.path]->bytes = action.bytes;
        break;
    case FileAction::RENAME:
        world.files[action.to] = world.files.at(action.path);
        world.files.erase(action.path);
        return;
    case FileAction::MAKE_DIRECTORY:
    case FileAction::MAKE_LINK:
        world.files[action.path] = std::make_shared<Node>();
        world.files[action.path]->kind =
            action.kind == FileAction::MAKE_LINK ? NodeKind::DanglingLink : NodeKind::Directory;
        break;
    case FileAction::REMOVE_TREE:
        removeTree(action.path);
        return;
    case FileAction::BLOCK:
        removeTree(action.path + "/");
        world.files[action.path] = std::make_shared<Node>();
        world.files[action.path]->bytes = action.bytes;
        break;
    }
    world.files.at(action.path)->modifiedMs = world.clock.wallMs;
}

// ---- showing -----------------------------------------------------------------------------------

namespace {

std::string quoted(const std::string &text) {
    std::string shown = "\"";
    for (size_t i = 0; i < text.size() && i < 60; ++i) {
        const auto byte = static_cast<unsigned char>(text[i]);
        char escaped[8];
        if (byte >= 32 && byte < 127)
            shown += text[i];
        else {
            snprintf(escaped, sizeof escaped, "\\x%02x", byte);
            shown += escaped;
        }
    }
    return shown + (text.size() > 60 ? "...\"(" + std::to_string(text.size()) + ")" : "\"");
}

const char *const CALLS[] = {
    "AppMsg",     "AppMsgEx",       "AppMsg2",           "AppMsg2Ex",       "AppMsg2V",
    "AppMsg2VEx", "AppMsg2L",       "AppMsg2LEx",        "DiagMsg",         "DiagMsg2",
    "DiagMsg2V",  "DiagMsg2L",      "AuditMsg",          "AuditMsg2",       "AuditMsg2V",
    "AuditMsg2L", "SecureAuditMsg", "SecureAuditMsgV",   "SecureAuditMsgL", "DebugMsg",
    "DebugMsg2",  "DebugMsg2V",     "FormattedDebugMsg", "raw message",     "raw write"};
const char *const FILE_OPS[] = {"remove",           "truncate",       "append",      "replace",
                                "rename",           "plant at next",  "plant ahead", "plant elsewhere",
                                "remove directory", "block directory"};

std::string show(const MessageCall &call) {
    std::string shown =
        std::string(CALLS[static_cast<size_t>(call.call)]) + " id=" + std::to_string(call.id) +
        " flags=" + std::to_string(call.flags) + " grade=" + std::to_string(call.grade) +
        " who=" + quoted(call.who) + " number=" + std::to_string(call.number) +
        " format=" + quoted(formatText(call.format)) + " text=" + (call.noText ? "null" : quoted(call.text)) +
        " " + std::to_string(call.first) + " " + std::to_string(call.second);
    if (call.withBlock)
        shown += " block";
    if (call.call >= Call::RawMessage)
        shown += " type=" + std::to_string(call.type) + " shift=" + std::to_string(call.shiftMs) + " ms";
    if (call.fit != MessageCall::NO_FIT)
        shown += " limit" + std::string(call.fit < 0 ? "" : "+") + std::to_string(call.fit);
    if (call.count > 1)
        shown += " x" + std::to_string(call.count) + (call.spread ? " spread" : "");
    return shown;
}

} // namespace

std::string show(const Configuration &configuration) {
    std::string shown = configuration.registered ? "" : "# not registered\n";
    for (const auto &[name, keys] : configuration.sections)
        for (const auto &[key, value] : keys)
            shown += name + "." + key + "=" + value + "\n";
    return shown;
}

std::string show(const Step &step) {
    const std::string slot = "#" + std::to_string(step.slot) + " ";
    const char *const levels[] = {"debug", "diagnostic", "secure audit"};
    switch (step.op) {
    case Op::Open:
        return slot + "open " + std::to_string(step.product) + " " + std::to_string(step.originator) +
               " in " + std::to_string(step.fileOriginator);
    case Op::OpenLogset:
        return slot + "open log set " + step.set + " for " + std::to_string(step.originator);
    case Op::Close:
        return slot + "close";
    case Op::Message:
        return slot + show(step.message);
    case Op::CreateContext:
        return slot + "context of #" + std::to_string(step.other) + " " +
               (step.noToken ? "null" : quoted(step.token)) +
               " number=" + std::to_string(step.message.number) + " " +
               quoted(formatText(step.message.format)) + " " + quoted(step.message.text);
    case Op::DestroyContext:
        return slot + "destroy context";
    case Op::SetLevel:
        return slot + "set " + levels[step.which] + " level " + std::to_string(step.value);
    case Op::GetLevel:
        return slot + "get " + levels[step.which] + " level";
    case Op::SetSequence:
        return slot + "set sequence " + std::to_string(step.value);
    case Op::GetSequence:
        return slot + "get sequence";
    case Op::SetUtf8:
        return slot + "utf8 " + std::to_string(step.value);
    case Op::TimePasses:
        return std::to_string(step.ms) + " ms pass";
    case Op::ClockIsSet:
        return "clock set by " + std::to_string(step.ms) + " ms";
    case Op::Host:
        return "host " + step.hostName + " " + step.hostAddress;
    case Op::Device:
        return step.which == 0 ? "device has room"
                               : "device takes " + std::to_string(step.value) + " bytes, then is " +
                                     (step.which == 1 ? "full" : "broken");
    case Op::Configure:
        return "configure\n" + show(step.configuration);
    case Op::Files:
        return slot + "files: " + FILE_OPS[static_cast<size_t>(step.fileOp)] +
               " pick=" + std::to_string(step.pick) + " kind=" + std::to_string(step.which) +
               " value=" + std::to_string(step.value) + " " + quoted(step.bytes);
    }
    return "";
}

// ---- making sequences --------------------------------------------------------------------------

namespace {

class Maker {
  public:
    explicit Maker(uint64_t seed) : random(seed * 2654435761u + 1) {}

    uint64_t below(uint64_t bound) { return random() % bound; }
    bool oneIn(uint64_t number) { return below(number) == 0; }
    template<typename T, size_t SIZE>
    const T &oneOf(const T (&values)[SIZE]) {
        return values[below(SIZE)];
    }

    std::string text() {
        static const char *const TEXTS[] = {"",
                                            "x",
                                            "Disk full, 2 of 3",
                                            "two\nlines",
                                            "\n",
                                            "ends\n",
                                            "caf\xc3\xa9 \xe2\x82\xac \xf0\x9f\x92\xbe",
                                            "latin \xe9\xfc",
                                            "cut \xc3",
                                            "bad \xff\xfe",
                                            "7:seven,(0|)",
                                            "tab\tcr\rbell\a",
                                            "[brackets] \"quotes\" \\"};
        if (oneIn(3))
            return oneOf(TEXTS);
        if (oneIn(40))
            return std::string(4000 + below(300), 'L');
        if (oneIn(400))
            return std::string(40000 + below(9000), 'H') + "\n\xc3\xa9";
        const uint64_t length = oneIn(3) ? below(1300) : below(60);
        return std::string(length, static_cast<char>('a' + below(26)));
    }
    std::string who() {
        static const char *const WHO[] = {"", "mgr", "a,b:c", "st\xc3\xa4ndig", "two\nlines", "worker-17"};
        return oneOf(WHO);
    }

    std::string host() { return oneIn(10) ? std::string(100, 'h') : oneIn(3) ? "hostB" : "hostA"; }
    std::string address() { return oneIn(4) ? "10.0.0.200" : "10.0.0.5"; }

    Keys series(bool logset, bool isDefault) {
        Keys keys;
        const auto add = [&](const char *key, const std::string &value) { keys.emplace_back(key, value); };
        static const char *const MODES[] = {"FileSize",
                                            "FileSize",
                                            "FileSize",
                                            "None",
                                            "LocalTime",
                                            "Periodic",
                                            "FileSize | LocalTime",
                                            "FileSize | Periodic"};
        static const char *const TIMES[] = {"00:00", "03:30", "12:00", "23:59", "04:15", "24:00", "nonsense"};
        static const char *const PERIODS[] = {"1", "5", "60", "601", "3600", "86400", "0"};
        static const char *const SIZES[] = {"1", "1", "2", "3", "4", "8", "0"};
        static const char *const KEPT[] = {"1", "2", "3", "5", "0"};
        if (isDefault || oneIn(3))
            add("RolloverMode", oneOf(MODES));
        if (isDefault || oneIn(3))
            add("MaxLogFileSizeKB", oneOf(SIZES));
        if (isDefault || oneIn(4))
            add("RolloverAtLocalTime", oneOf(TIMES));
        if (isDefault || oneIn(4))
            add("RolloverPeriodInSeconds", oneOf(PERIODS));
        if (isDefault || oneIn(4))
            add("LogRecycle", oneIn(2) ? "true" : "false");
        if (isDefault || oneIn(4))
            add("NumberOfLogFiles", oneOf(KEPT));
        if (oneIn(2))
            add("DebugLevel", std::to_string(below(8)));
        if (oneIn(2))
            add("DiagnosticLevel", std::to_string(below(8)));
        if (oneIn(3))
            add("DynaReloadInSec", oneIn(2) ? "10" : "90");
        if (oneIn(4))
            add("LogFilePermissions", oneIn(2) ? "640" : "664");
        if (logset && !isDefault && oneIn(2))
            add("FileName", "night");
        return keys;
    }

    Configuration configuration() {
        Configuration made;
        made.registered = !oneIn(40);
        for (const char *const section : {"Default", "7", "8", "LOGSET.Default", "LOGSET.backup"}) {
            const std::string name = section;
            const bool isDefault = name == "Default" || name == "LOGSET.Default";
            Keys keys = series(name.compare(0, 3, "LOG") == 0, isDefault);
            if (isDefault && !oneIn(60))
                keys.insert(keys.begin(), {"LogDirectory", oneIn(15) ? "HOME/other/deep/" : "HOME/log/"});
            else if (!isDefault && oneIn(10))
                keys.insert(keys.begin(), {"LogDirectory", oneIn(2) ? "sub" : "HOME/other"});
            if (!keys.empty())
                made.sections[name] = keys;
        }
        return made;
    }

    MessageCall message() {
        MessageCall call;
        call.call = oneIn(3) ? Call::App2Ex : static_cast<Call>(below(static_cast<uint64_t>(Call::End)));
        call.id = oneIn(10) ? UINT64_MAX - below(2) : below(100000);
        call.flags = (oneIn(4) ? 8 : 0) | (oneIn(4) ? 16 : 0);
        call.grade = static_cast<uint32_t>(oneIn(15) ? below(9) : below(5));
        if (oneIn(300))
            call.grade = UINT32_MAX;
        call.who = who();
        call.outcome = oneIn(10) ? UINT32_MAX : static_cast<uint32_t>(below(10));
        call.number = oneIn(3) ? 0 : static_cast<int64_t>(1 + below(5000));
        if (call.call <= Call::Diag2L && oneIn(2))
            call.number = 0;
        call.format = static_cast<Format>(below(static_cast<uint64_t>(Format::End)));
        call.text = text();
        call.first = oneIn(8) ? INT32_MIN : static_cast<int32_t>(below(2000)) - 1000;
        call.second = oneIn(8) ? UINT32_MAX : static_cast<uint32_t>(below(1000));
        call.noText = oneIn(4);
        call.withBlock = oneIn(2);
        call.type = oneIn(2) ? 2 : static_cast<unsigned>(below(8));
        if (call.type == 3) // a context's own record has more to it
            call.type = 0;
        static const int64_t SHIFTS[] = {0, 0, -1000, 599999, 600000, 600001, 700000, -700000};
        call.shiftMs = oneOf(SHIFTS);
        if (oneIn(8))
            call.fit = static_cast<int>(below(3)) - 1;
        if (oneIn(4)) {
            call.count = static_cast<int>(2 + below(oneIn(3) ? 100 : 10));
            call.spread = oneIn(2);
        }
        return call;
    }

    Step step() {
        static const int64_t PASSES[] = {
            1,      3,      50,     400,     1000,    1500,     2500,     5000,        61000,      92000,
            300000, 599000, 601000, 3600000, 7200000, 43200000, 86400000, 31536000000, 31622400000};
        static const int64_t JUMPS[] = {-1000, -2000, -60000, -3600000, 1000, 3000, 90000, 3600000, 86400000};
        Step made;
        made.slot = below(SLOTS);
        made.pick = below(1000000);
        made.value = below(1000);
        const uint64_t what = below(100);
        if (what < 9) {
            made.op = Op::Open;
            made.originator = oneIn(3) ? 8 : 7;
            made.fileOriginator = oneIn(5) ? 15 - made.originator : made.originator;
            if (oneIn(12))
                made.originator = made.fileOriginator = 112;
            if (oneIn(40))
                made.product = below(3);
            if (oneIn(60))
                made.originator = 0;
        } else if (what < 14) {
            made.op = Op::OpenLogset;
            static const char *const SETS[] = {"backup", "backup", "Default", "missing"};
            made.set = oneOf(SETS);
        } else if (what < 18) {
            made.op = oneIn(2) ? Op::Close : Op::DestroyContext;
        } else if (what < 24) {
            made.op = Op::CreateContext;
            made.other = below(SLOTS);
            made.noToken = oneIn(25);
            made.token = oneIn(3) ? who() : "T" + std::to_string(below(100));
            made.message = message();
            if (oneIn(3))
                made.message.number = 0;
        } else if (what < 27) {
            made.op = oneIn(2) ? Op::SetLevel : Op::GetLevel;
            made.which = static_cast<int>(below(3));
            made.value = below(8);
        } else if (what < 29) {
            made.op = oneIn(2) ? Op::SetSequence : Op::GetSequence;
            made.value = oneIn(3) ? UINT64_MAX : below(1000000);
        } else if (what < 30) {
            made.op = Op::SetUtf8;
            made.value = below(2);
        } else if (what < 42) {
            made.op = Op::TimePasses;
            made.ms = oneOf(PASSES);
        } else if (what < 43) {
            made.op = Op::ClockIsSet;
            made.ms = oneOf(JUMPS);
        } else if (what < 44) {
            made.op = oneIn(2) ? Op::Host : Op::Device;
            made.hostName = host();
            made.hostAddress = address();
            made.which = static_cast<int>(below(4));
            if (made.which == 3)
                made.which = 1;
            made.value = oneIn(3) ? below(40) : below(2000);
        } else if (what < 47) {
            made.op = Op::Configure;
            made.configuration = configuration();
        } else if (what < 56) {
            made.op = Op::Files;
            made.fileOp = static_cast<FileOp>(below(static_cast<uint64_t>(FileOp::End)));
            if (made.fileOp >= FileOp::RemoveDirectory && !oneIn(4))
                made.fileOp = FileOp::Remove;
            made.which = oneIn(8)   ? static_cast<int>(100 + below(2))
                         : oneIn(2) ? 0
                                    : static_cast<int>(below(8));
            static const char *const BYTES[] = {"2,5,7,7,1,1,1,1,0:,1:a,1:b,0,(0|)\n", "half a line", "\n"};
            made.bytes = oneIn(4) ? std::string(900, '-') + "\n" : oneOf(BYTES);
        } else {
            made.op = Op::Message;
            made.message = message();
        }
        return made;
    }

  private:
    std::mt19937_64 random;
};

int64_t secondsOf(int year, int month, int day, int hour, int minute) {
    tm utc = {};
    utc.tm_year = year - 1900;
    utc.tm_mon = month - 1;
    utc.tm_mday = day;
    utc.tm_hour = hour;
    utc.tm_min = minute;
    return timegm(&utc);
}

} // namespace

Sequence makeSequence(uint64_t seed, size_t length) {
    Maker maker(seed);
    Sequence made;
    made.seed = seed;
    static const char *const ZONES[] = {"UTC", "CET-1CEST,M3.5.0,M10.5.0/3", "EST5EDT,M3.2.0,M11.1.0",
                                        "<+0545>-5:45"};
    made.zone = maker.oneOf(ZONES);
    made.hostName = maker.host();
    made.hostAddress = maker.address();
    made.encoding = maker.oneIn(3) ? Encoding::Latin1 : Encoding::Utf8;
    // Ordinary days, those on which the clock changes, ends of months and years.
    const int64_t starts[] = {secondsOf(2031, 1, 1, 0, 0) + static_cast<int64_t>(maker.below(365 * 86400)),
                              secondsOf(2031, 3, 29, 22, 50), secondsOf(2031, 10, 25, 22, 50),
                              secondsOf(2031, 12, 31, 22, 58), secondsOf(2032, 2, 28, 23, 55)};
    made.startMs = maker.oneOf(starts) * 1000 + static_cast<int64_t>(maker.below(700));
    made.configuration = maker.configuration();
    // Something open to begin with
    Step first;
    first.op = Op::Open;
    made.steps.push_back(first);
    if (maker.oneIn(3)) {
        first.slot = 1;
        first.op = Op::OpenLogset;
        first.set = "backup";
        made.steps.push_back(first);
    }
    size_t recovery = 0; // where the device has room again and the product is registered
    while (made.steps.size() < length) {
        Step step = maker.step();
        const bool isBad = (step.op == Op::Device && step.which != 0) ||
                           (step.op == Op::Configure && !step.configuration.registered);
        if (isBad && recovery == 0)
            recovery = made.steps.size() + 2 + maker.below(5);
        if (recovery != 0 && made.steps.size() >= recovery) {
            recovery = 0;
            Step room;
            room.op = Op::Device;
            made.steps.push_back(room);
            step = {};
            step.op = Op::Configure;
            step.configuration = maker.configuration();
            step.configuration.registered = true;
        }
        // Most steps are for the first handles, so that something comes of them.
        if (maker.oneIn(2))
            step.slot %= 3;
        made.steps.push_back(step);
    }
    return made;
}

} // namespace model
