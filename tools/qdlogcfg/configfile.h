// A configuration file as the library sees it: lines read through the property
// store, each with its section, key and value.
#pragma once

#include <map>
#include <string>
#include <vector>

struct ConfigLine {
    size_t number;    // of the file's line that this begins in, from 1
    std::string text; // without its line feed, up to a NUL byte
    bool hasNul;      // the library reads no further than that byte
    bool comment;     // first character other than spaces is '#'
    bool blank;       // nothing but white space
    bool continued;   // the rest of a line longer than the library reads at once
    bool hasEquals;
    std::string section; // "Default", "7", "LOGSET.name"; empty when there is none
    std::string name;    // key without its section
    std::string value;   // as the library reads it: up to the next '='
    bool valueHasEquals; // the value goes on after another '='
};

struct ConfigFile {
    std::string path;
    bool exists;     // also when it cannot be read
    bool readable;   // the library can open it
    bool unfinished; // no line feed at its end: a line that is added joins the last one
    std::vector<ConfigLine> lines;
    // The lines of each section by position, and the first line of each key in it.
    std::map<std::string, std::vector<size_t>> linesOfSection;
    std::map<std::pair<std::string, std::string>, size_t> firstOfKey;

    // The line that a lookup finds: the first one of that section and key.
    const ConfigLine *find(const std::string &section, const std::string &name) const;
    // The sections in order of appearance, each once.
    std::vector<std::string> sections() const;
};

ConfigFile readConfigFile(const std::string &path);
// The value as the library takes texts: without spaces at its end.
std::string strippedValue(const ConfigLine &line);
