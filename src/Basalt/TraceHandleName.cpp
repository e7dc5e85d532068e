#include "Basalt/TraceHandleName.h"

#include <vector>

namespace Basalt::Util {

namespace {

std::vector<std::string_view> componentsOf(std::string_view path) {
  std::vector<std::string_view> components;
  while (!path.empty()) {
    const std::size_t slash = path.find('/');
    const std::string_view component = path.substr(0, slash);
    if (!component.empty()) {
      components.push_back(component);
    }
    path = slash == std::string_view::npos ? std::string_view() : path.substr(slash + 1);
  }
  return components;
}

}  // namespace

const std::string & traceHandleName(std::string_view path, std::string * name, uint32_t flags) {
  const std::vector<std::string_view> components = componentsOf(path);
  name->clear();
  if (components.empty()) {
    *name = "Cairn";
  } else if (flags & TraceHandleLeaf) {
    *name = components.back();
  } else {
    for (std::string_view component : components) {
      if (!name->empty()) {
        *name += '.';
      }
      *name += component;
    }
  }
  return *name;
}

}  // namespace Basalt::Util
