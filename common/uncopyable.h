// Base of classes whose objects are neither copied nor assigned.
#pragma once

class Uncopyable {
  protected:
    Uncopyable() = default;
    ~Uncopyable() = default;

  public:
    Uncopyable(const Uncopyable&) = delete;
    Uncopyable& operator=(const Uncopyable&) = delete;
};
