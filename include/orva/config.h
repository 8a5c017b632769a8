// Reader of the INI-dialect network description and training-parameter files.
#pragma once
#include "orva/export.h"
#include <cstdio>
#include <map>
#include <string>
#include <vector>

ORVA_API_BEGIN

class ConfigReader {
 public:
  struct TSection {
    std::string name;
    std::map<std::string, std::string> keyval;
  };

  ConfigReader() = default;
  ~ConfigReader() = default;

  // 0 on success, -1 when the file can't be opened, else the 1-based number of the
  // first malformed line (what came before it stays loaded).
  int load(const char* path);
  // The same from the text of a description held in memory.
  int loadText(const std::string& text);

  int getSectionSize() const { return (int)_sections.size(); }
  const char* getSectionName(int index) const;
  int findSection(const char* sect, int start) const;

  // Section numbers are 0-based; a negative number selects the global section.
  const char* findValue(int nsect, const char* key) const;
  int findInt(int nsect, const char* key, int def, bool quiet = false) const;
  float findFloat(int nsect, const char* key, float def, bool quiet = false) const;
  const char* findStr(int nsect, const char* key, const char* def, bool quiet = false) const;

  void setValue(const char* key, const char* value);
  // 1-based, as the loader numbers sections while it reads.
  void setValue(int isect, const char* key, const char* value);

 private:
  const TSection* _section(int nsect) const;
  // Reads and closes f; -1 when f is null.
  int _read(FILE* f);

  std::vector<TSection> _sections;
  TSection _gsection;
};

void get_minmax(ConfigReader& cfg, int nsect, const char* key, int& min, int& max);
void get_minmax(ConfigReader& cfg, int nsect, const char* key, float& min, float& max);

ORVA_API_END
