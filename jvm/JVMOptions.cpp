#include "jvm/JVMOptions.h"

#include <cstdlib>
#include <cstring>

char* to_c_str(const std::string& s) {
  auto* block = static_cast<char*>(std::malloc(s.size() + 1));
  if (block != nullptr) std::memcpy(block, s.c_str(), s.size() + 1);
  return block;
}

JavaVMOption makeOpt(char* s) { return {s, nullptr}; }

void addOption(JVMOptions& options, const std::string& text) {
  options.push_back(makeOpt(to_c_str(text)));
}
