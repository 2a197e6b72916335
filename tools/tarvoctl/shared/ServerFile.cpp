#include "shared/ServerFile.h"

#include <unistd.h>

#include "api/EnvManager.h"

namespace tarvoctl {

bool ServerFile::Note(const std::string &name) { return DescribeFile(EnvManager::FifoPrefix(), name, file); }

void ServerFile::Remove() {
    FifoFile now;
    if (!file.name.empty() && DescribeFile(EnvManager::FifoPrefix(), file.name, now) && now.id == file.id) {
        unlink((EnvManager::FifoPrefix() + file.name).c_str());
    }
    file = FifoFile();
}

} // namespace tarvoctl
