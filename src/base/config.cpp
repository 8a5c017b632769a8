#include "orva/config.h"

#include <algorithm>
#include <cctype>
#include <cfloat>
#include <climits>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace {

// A '#' starts an inline comment only right after white space.
bool comment_at(const char* text, const char* p) { return *p == '#' && p > text && isspace((unsigned char)p[-1]); }

// Numbers outside the type's range saturate instead of wrapping, so a range check after the
// look-up sees them as too large rather than as some unrelated small value.
int parse_int(const char* s) {
  const long long v = strtoll(s, nullptr, 10);
  return (int)std::max<long long>(INT_MIN, std::min<long long>(INT_MAX, v));
}
float parse_float(const char* s) {
  const double v = strtod(s, nullptr);
  if (v > FLT_MAX) return HUGE_VALF;
  if (v < -FLT_MAX) return -HUGE_VALF;
  return (float)v;
}

}  // namespace

int ConfigReader::load(const char* path) { return _read(fopen(path, "r")); }

int ConfigReader::loadText(const std::string& text) {
  // A stream over the caller's bytes; an empty text reads as an empty description.
  static const char kEmpty[] = "\n";
  return _read(text.empty() ? fmemopen(const_cast<char*>(kEmpty), 1, "r")
                            : fmemopen(const_cast<char*>(text.data()), text.size(), "r"));
}

int ConfigReader::_read(FILE* f) {
  if (!f) return -1;
  _sections.clear();

  int isect = 0;
  char prev_key[128] = "";
  char buf[4096];
  int line = 1;
  for (bool first = true; fgets(buf, sizeof(buf), f); ++line, first = false) {
    char* text = buf;
    bool at_first_column = true;
    if (first && (unsigned char)text[0] == 0xEF && (unsigned char)text[1] == 0xBB &&
        (unsigned char)text[2] == 0xBF) {
      text += 3;
      at_first_column = false;
    }
    size_t len = strlen(text);
    while (len && isspace((unsigned char)text[len - 1])) text[--len] = 0;
    while (isspace((unsigned char)*text)) {
      ++text;
      at_first_column = false;
    }
    if (!*text || *text == ';' || *text == '#') continue;

    if (prev_key[0] && !at_first_column) {
      setValue(isect, prev_key, text);  // continuation: replaces the previous key's value
      continue;
    }
    if (*text == '[') {
      char* p = text + 1;
      while (*p && *p != ']' && !comment_at(text, p)) ++p;
      if (*p != ']') {
        fclose(f);
        return line;
      }
      TSection s;
      s.name.assign(text + 1, std::min<size_t>(p - (text + 1), 127));
      _sections.push_back(std::move(s));
      ++isect;
      prev_key[0] = 0;
      continue;
    }
    char* d = text;
    while (*d && *d != '=' && *d != ':' && !comment_at(text, d)) ++d;
    if (*d != '=' && *d != ':') {
      fclose(f);
      return line;
    }
    char* key_end = d;
    while (key_end > text && isspace((unsigned char)key_end[-1])) --key_end;
    std::string key(text, key_end);
    char* value = d + 1;
    for (char* p = value + 1; *value && *p; ++p) {
      if (comment_at(text, p)) {
        *p = 0;
        break;
      }
    }
    while (isspace((unsigned char)*value)) ++value;
    size_t vlen = strlen(value);
    while (vlen && isspace((unsigned char)value[vlen - 1])) value[--vlen] = 0;
    snprintf(prev_key, sizeof(prev_key), "%s", key.c_str());
    setValue(isect, key.c_str(), value);
  }
  fclose(f);
  return 0;
}

const char* ConfigReader::getSectionName(int index) const {
  if (index < 0 || index >= (int)_sections.size()) return nullptr;
  return _sections[index].name.c_str();
}

int ConfigReader::findSection(const char* sect, int start) const {
  // Compared as an unsigned index: a negative start is past the end.
  for (size_t i = (unsigned)start; i < _sections.size(); ++i)
    if (_sections[i].name == sect) return (int)i;
  return -1;
}

const ConfigReader::TSection* ConfigReader::_section(int nsect) const {
  if (nsect < 0) return &_gsection;
  if (nsect >= (int)_sections.size()) return nullptr;
  return &_sections[nsect];
}

const char* ConfigReader::findValue(int nsect, const char* key) const {
  const TSection* s = _section(nsect);
  if (!s) return nullptr;
  auto it = s->keyval.find(key);
  if (it == s->keyval.end() || it->second.empty()) return nullptr;
  return it->second.c_str();
}

int ConfigReader::findInt(int nsect, const char* key, int def, bool quiet) const {
  if (const char* v = findValue(nsect, key)) return parse_int(v);
  if (!quiet) fprintf(stderr, "[ConfigReader] '%s' using default '%d'\n", key, def);
  return def;
}

float ConfigReader::findFloat(int nsect, const char* key, float def, bool quiet) const {
  if (const char* v = findValue(nsect, key)) return parse_float(v);
  if (!quiet) fprintf(stderr, "[ConfigReader] '%s' using default '%f'\n", key, (double)def);
  return def;
}

const char* ConfigReader::findStr(int nsect, const char* key, const char* def, bool quiet) const {
  if (const char* v = findValue(nsect, key)) return v;
  if (!quiet) fprintf(stderr, "[ConfigReader] '%s' using default '%s'\n", key, def ? def : "(null)");
  return def;
}

void ConfigReader::setValue(const char* key, const char* value) { _gsection.keyval[key] = value; }

void ConfigReader::setValue(int isect, const char* key, const char* value) {
  if (isect < 1 || isect > (int)_sections.size()) return;
  _sections[isect - 1].keyval[key] = value;
}

namespace {
template <typename T, typename Parse>
void minmax(ConfigReader& cfg, int nsect, const char* key, T& min, T& max, Parse parse) {
  const char* v = cfg.findValue(nsect, key);
  if (!v) return;
  std::string pieces[3];
  int count = 0;
  for (const char* p = v; *p;) {
    while (*p == ' ' || *p == ',') ++p;
    if (!*p) break;
    const char* start = p;
    while (*p && *p != ' ' && *p != ',') ++p;
    if (count < 3) pieces[count] = std::string(start, p);
    ++count;
  }
  if (count != 2) return;
  min = parse(pieces[0].c_str());
  max = parse(pieces[1].c_str());
}
}  // namespace

void get_minmax(ConfigReader& cfg, int nsect, const char* key, int& min, int& max) {
  minmax(cfg, nsect, key, min, max, [](const char* s) { return parse_int(s); });
}

void get_minmax(ConfigReader& cfg, int nsect, const char* key, float& min, float& max) {
  minmax(cfg, nsect, key, min, max, [](const char* s) { return parse_float(s); });
}
