#include "shared/FifoFiles.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <memory>

namespace tarvoctl {
namespace {

// Names may point into folders, but nobody nests them deeper than a path of 255 characters allows.
constexpr std::size_t MAX_FOLDERS = 4096;

struct DirectoryCloser {
    void operator()(DIR *directory) const { closedir(directory); }
};
using Directory = std::unique_ptr<DIR, DirectoryCloser>;

std::string LabelOf(const std::string &path) {
    std::array<char, 256> label{};
    const ssize_t size = lgetxattr(path.c_str(), "security.selinux", label.data(), label.size() - 1);
    return size > 0 ? std::string(label.data()) : std::string();
}

// Adds what lies in the folder `below` of the directory, and its folders to `folders`.
int ScanFolder(const std::string &root, const std::string &below, FifoFiles &files, std::vector<std::string> &folders) {
    const Directory directory(opendir((root + below).c_str()));
    if (directory == nullptr) {
        return errno;
    }
    while (const dirent *entry = readdir(directory.get())) {
        const std::string name = entry->d_name;
        FifoFile file;
        if (name == "." || name == ".." || !DescribeFile(root, below + name, file)) {
            continue;
        }
        if (S_ISFIFO(file.mode)) {
            files.fifos.push_back(file);
        } else if (S_ISDIR(file.mode)) {
            folders.push_back(below + name + "/");
        } else {
            files.others.push_back(file);
        }
    }
    return 0;
}

} // namespace

FifoFiles ScanFifoFiles(const std::string &directory) {
    FifoFiles files;
    std::vector<std::string> folders = {""};
    for (std::size_t i = 0; i < folders.size() && i < MAX_FOLDERS; ++i) {
        const std::string below = folders[i]; // a copy: the scan adds folders
        const int error = ScanFolder(WithSlash(directory), below, files, folders);
        files.error = i == 0 ? error : files.error;
    }
    const auto byName = [](const FifoFile &a, const FifoFile &b) { return a.name < b.name; };
    std::sort(files.fifos.begin(), files.fifos.end(), byName);
    std::sort(files.others.begin(), files.others.end(), byName);
    return files;
}

bool DescribeFile(const std::string &directory, const std::string &name, FifoFile &file) {
    const std::string path = WithSlash(directory) + name;
    struct stat state {};
    if (lstat(path.c_str(), &state) != 0) {
        return false;
    }
    file.name = name;
    file.id = {state.st_dev, state.st_ino};
    file.mode = state.st_mode;
    file.user = state.st_uid;
    file.group = state.st_gid;
    file.changed = state.st_ctim.tv_sec;
    file.label = LabelOf(path);
    return true;
}

std::string WithSlash(const std::string &directory) {
    return directory.empty() || directory.back() == '/' ? directory : directory + "/";
}

std::string ModeText(mode_t mode) {
    static constexpr std::array<char, 9> letters = {'r', 'w', 'x', 'r', 'w', 'x', 'r', 'w', 'x'};
    std::string text;
    for (std::size_t i = 0; i < letters.size(); ++i) {
        const bool set = (mode & (0400U >> i)) != 0;
        text += set ? letters[i] : '-';
    }
    return text;
}

} // namespace tarvoctl
