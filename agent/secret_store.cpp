#include "agent/secret_store.hpp"

#include "core/private_file.hpp"

#include <unistd.h>

#include <fstream>

namespace orbweave::agent {

secret_store::secret_store(std::string dir)
    : dir_(std::move(dir))
{
}

std::string secret_store::path() const
{
    return dir_ + "/secret";
}

std::string secret_store::load() const
{
    std::ifstream in(path());
    std::string secret;
    std::getline(in, secret);
    return secret;
}

bool secret_store::save(const std::string& secret) const
{
    return write_private_file(path(), secret + "\n");
}

void secret_store::erase() const
{
    ::unlink(path().c_str());
}

} // namespace orbweave::agent
