#pragma once

// An environment variable set (or removed) for one scope, and put back as it was.

#include <cstdlib>
#include <optional>
#include <string>

namespace orbweave::test {

class scoped_environment {
public:
    /// Sets name to value, or removes it when value is none.
    scoped_environment(std::string name, const std::optional<std::string>& value) : name_(std::move(name))
    {
        if (const char* old = std::getenv(name_.c_str()))
            old_ = old;
        if (value)
            ::setenv(name_.c_str(), value->c_str(), 1);
        else
            ::unsetenv(name_.c_str());
    }
    ~scoped_environment()
    {
        if (old_)
            ::setenv(name_.c_str(), old_->c_str(), 1);
        else
            ::unsetenv(name_.c_str());
    }
    scoped_environment(const scoped_environment&) = delete;
    scoped_environment& operator=(const scoped_environment&) = delete;

private:
    std::string name_;
    std::optional<std::string> old_;
};

} // namespace orbweave::test
