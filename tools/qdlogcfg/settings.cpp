#include "settings.h"

#include <algorithm>
#include <charconv>
#include <memory>
#include <set>

#include "common/exit_codes.h"

namespace {

constexpr char LOGSET_PREFIX[] = "LOGSET.";

struct FreeText {
    void operator()(char *text) const { zoltLogFree(text); }
};
using OwnedText = std::unique_ptr<char, FreeText>;

bool isLogsetSection(const std::string &section) {
    return section.rfind(LOGSET_PREFIX, 0) == 0;
}

// The records of all originators and log sets of a product, as the library reads them.
struct ProductRecords {
    explicit ProductRecords(const Product &product) : count(0) {
        const size_t sections = readConfigFile(product.location).sections().size();
        records.resize(sections + 2); // and the two base records
        const auto capacity = static_cast<uint32_t>(records.size());
        if (zoltLogReadProdIDCfg(nullptr, product.id, capacity, records.data(), &count) != ZOLTLOG_OK)
            count = 0;
    }
    ~ProductRecords() {
        for (uint32_t i = 0; i < count; ++i) {
            zoltLogFreeCfg(records[i]);
            zoltLogFree(records[i]);
        }
    }
    ProductRecords(const ProductRecords &) = delete;
    ProductRecords &operator=(const ProductRecords &) = delete;

    std::vector<LogCfg *> records;
    uint32_t count;
};

bool namesHold(const std::string &names, const std::string &name) {
    const std::vector<std::string> list = namesIn(names);
    return std::find(list.begin(), list.end(), name) != list.end();
}

// What the library reads for a product from the main file; empty when there is nothing.
std::string mainFileText(uint32_t (*read)(const char *, uint64_t, char **), uint64_t productId) {
    char *text = nullptr;
    const bool found = read(GetZoltLogCfgLoc(), productId, &text) == ZOLTLOG_OK;
    const OwnedText owned(text);
    return found ? text : "";
}

} // namespace

std::optional<uint64_t> decimal(const std::string &text) {
    uint64_t number = 0;
    const char *end = text.data() + text.size();
    const auto parsed = std::from_chars(text.data(), end, number);
    if (text.empty() || parsed.ec != std::errc() || parsed.ptr != end)
        return std::nullopt;
    return number;
}

std::vector<std::string> namesIn(const std::string &list) {
    std::vector<std::string> names;
    for (size_t start = 0; start < list.size();) {
        const size_t end = std::min(list.find_first_of(", ", start), list.size());
        if (end > start)
            names.push_back(list.substr(start, end - start));
        start = end + 1;
    }
    return names;
}

std::string mainConfigPath() {
    return GetZoltLogCfgLoc();
}

std::vector<Product> registeredProducts() {
    std::vector<Product> products;
    const ConfigFile file = readConfigFile(mainConfigPath());
    requireReadable(file);
    for (const std::string &section : file.sections()) {
        const std::optional<uint64_t> id = decimal(section);
        const ConfigLine *location = file.find(section, "Configuration");
        if (!id || *id == 0 || std::to_string(*id) != section || location == nullptr)
            continue;
        products.push_back({*id, mainFileText(GetProductShortName, *id), mainFileText(GetProductCfgPath, *id),
                            location->number});
    }
    return products;
}

void requireReadable(const ConfigFile &file) {
    if (file.exists && !file.readable)
        throw CommandError(tools::ExitUnreadable, file.path + " cannot be read");
}

void requireChangeable(const ConfigFile &file) {
    requireReadable(file);
    if (file.unfinished)
        throw CommandError(tools::ExitUnreadable,
                           file.path + ": the last line has no line feed, so that a change would be joined "
                                       "to it; end that line first");
}

Product findProduct(const std::string &text) {
    const std::vector<Product> products = registeredProducts();
    const std::optional<uint64_t> id = decimal(text);
    for (const Product &product : products)
        if (id ? product.id == *id : namesHold(product.names, text))
            return product;
    throw CommandError(tools::ExitUnreadable, "no product '" + text + "' is registered in " +
                                                  mainConfigPath() +
                                                  (products.empty() ? " (it registers none)" : ""));
}

std::string Scope::section() const {
    if (isLogset)
        return LOGSET_PREFIX + logset;
    return IsDefaultOriginator(originator) != 0 ? "Default" : std::to_string(originator);
}

std::string Scope::baseSection() const {
    return isLogset ? std::string(LOGSET_PREFIX) + "Default" : "Default";
}

std::string Scope::title() const {
    if (isLogset)
        return "log set " + logset;
    return IsDefaultOriginator(originator) != 0 ? "Default" : "originator " + std::to_string(originator);
}

Scope findScope(const Product &product, const std::string &originator, const std::string &logset) {
    if (!originator.empty() && !logset.empty())
        throw CommandError(tools::ExitUsage, "give an originator or a log set, not both");
    if (!logset.empty()) {
        if (logset.find_first_of(".=\n") != std::string::npos)
            throw CommandError(tools::ExitUsage, "a log set's name holds no '.', no '=' and no line feed");
        if (product.location.find(".conf") == std::string::npos)
            throw CommandError(tools::ExitUnreadable,
                               product.location + " holds no \".conf\" in its path: its log sets are not "
                                                  "settings of this file");
        return {product, true, 0, logset};
    }
    if (originator.empty() || originator == "Default")
        return {product, false, ZOLTLOG_DEFAULT_ORIGINATOR, ""};
    if (const std::optional<uint64_t> id = decimal(originator)) {
        if (isOrigIdValid(*id) == 0)
            throw CommandError(tools::ExitUsage, "0 is no originator id");
        return {product, false, *id, ""};
    }
    const ProductRecords all(product);
    for (uint32_t i = 0; i < all.count; ++i)
        if (all.records[i]->isLogset == 0 && namesHold(all.records[i]->originatorNames, originator))
            return {product, false, all.records[i]->originatorId, ""};
    throw CommandError(tools::ExitUnreadable,
                       "product " + std::to_string(product.id) + " has no originator '" + originator + "'");
}

std::vector<Scope> allScopes(const Product &product) {
    std::vector<Scope> scopes;
    scopes.push_back({product, false, ZOLTLOG_DEFAULT_ORIGINATOR, ""});
    const ConfigFile file = readConfigFile(product.location);
    std::vector<Scope> logsets;
    std::set<uint64_t> known = {ZOLTLOG_DEFAULT_ORIGINATOR};
    for (const std::string &section : file.sections()) {
        if (isLogsetSection(section)) {
            const std::string name = section.substr(sizeof LOGSET_PREFIX - 1);
            const Scope scope{product, true, 0, name};
            logsets.insert(scope.isBase() ? logsets.begin() : logsets.end(), scope);
        } else if (const std::optional<uint64_t> id = decimal(section)) {
            if (*id != 0 && known.insert(*id).second)
                scopes.push_back({product, false, *id, ""});
        }
    }
    scopes.insert(scopes.end(), logsets.begin(), logsets.end());
    return scopes;
}

bool readSettings(const Scope &scope, Settings &settings) {
    zoltLogFreeCfg(&settings.cfg);
    const uint32_t result = scope.isLogset
                                ? zoltLogReadlogsetCfg(scope.product.id, scope.logset.c_str(), &settings.cfg)
                                : zoltLogReadCfg(scope.product.id, scope.originator, &settings.cfg);
    return result == ZOLTLOG_OK;
}

// Reads the section twice, over two records that differ in every setting: what the
// library took from the section is what came out alike.
std::vector<bool> accepted(const ConfigFile &file, const std::string &section, bool isLogset) {
    const std::string name = isLogset ? section.substr(sizeof LOGSET_PREFIX - 1) : "";
    Settings a;
    Settings b;
    InitLogCfg(1, isLogset ? 0 : 1, isLogset ? name.c_str() : nullptr, &a.cfg);
    InitLogCfg(1, isLogset ? 0 : 1, isLogset ? name.c_str() : nullptr, &b.cfg);
    for (const Key &key : keys()) {
        key.apply(a.cfg, key.probeA);
        key.apply(b.cfg, key.probeB);
    }
    for (Settings *settings : {&a, &b}) {
        if (isLogset)
            GetLogSetCfgSettings(file.path.c_str(), name.c_str(), &settings->cfg);
        else
            GetOriginatorCfgSettings(file.path.c_str(), section.c_str(), &settings->cfg);
    }
    std::vector<bool> result;
    for (const Key &key : keys()) {
        const ConfigLine *line = file.find(section, key.name);
        const bool applies = isLogset ? key.logset : key.originator;
        bool taken = key.show(a.cfg) == key.show(b.cfg);
        if (key.show == findKey("LogDirectory")->show || key.show == findKey("FileName")->show)
            taken = line != nullptr && !strippedValue(*line).empty(); // both hold more than the value
        result.push_back(line != nullptr && applies && taken);
    }
    return result;
}

std::vector<Effective> effectiveSettings(const Scope &scope, const ConfigFile &file) {
    Settings settings;
    if (!readSettings(scope, settings))
        throw CommandError(tools::ExitUnreadable, scope.title() + " of product " +
                                                      std::to_string(scope.product.id) +
                                                      " has no settings in " + file.path);
    std::vector<std::string> sections = {scope.baseSection()};
    if (!scope.isBase())
        sections.push_back(scope.section());

    std::vector<Effective> result;
    for (const Key &key : keys())
        if (scope.isLogset ? key.logset : key.originator)
            result.push_back({&key, key.show(settings.cfg), Effective::BUILT_IN, 0, {}});
    for (const std::string &section : sections) {
        const std::vector<bool> taken = accepted(file, section, scope.isLogset);
        for (Effective &setting : result) {
            const ConfigLine *line = file.find(section, setting.key->name);
            const bool inherited = setting.key->name != std::string("FileName") || section == scope.section();
            if (line == nullptr || !inherited)
                continue;
            if (taken[static_cast<size_t>(setting.key - keys().data())]) {
                setting.from =
                    section == scope.baseSection() ? Effective::BASE_SECTION : Effective::OWN_SECTION;
                setting.line = line->number;
            } else {
                setting.skipped.push_back({line->value, section, line->number});
            }
        }
    }
    return result;
}

std::string sourceText(const Effective &setting, const Scope &scope) {
    if (setting.from == Effective::BUILT_IN)
        return setting.key->name == std::string("FileName") && !setting.value.empty() ? "the log set's name"
                                                                                      : "built-in default";
    const std::string section =
        setting.from == Effective::BASE_SECTION ? scope.baseSection() : scope.section();
    return "section " + section + ", " + scope.product.location + ":" + std::to_string(setting.line);
}
