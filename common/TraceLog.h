// A log that carries a name. It offers nothing but that.
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
