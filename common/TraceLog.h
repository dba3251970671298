// A named log. It carries its name; nothing is written yet by any module.
#pragma once

#include <string>
#include <utility>

namespace TraceLog {

class TraceLog {
  public:
    explicit TraceLog(std::string name) : m_strName(std::move(name)) {}
    virtual ~TraceLog() = default;

  private:
    std::string m_strName;
    std::string m_strText;
};

}  // namespace TraceLog
