#include "runtime/access_tokens.h"

#include <fcntl.h>
#include <pwd.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <utility>
#include <vector>

#include "access_token.h"
#include "base/file.h"
#include "base/file_names.h"
#include "base/immortal.h"
#include "base/json_node.h"
#include "base/unique_fd.h"
#include "runtime/settings.h"

namespace KITE {

namespace {

using Linux::Failure;
using Linux::JsonNode;
using Linux::Result;

struct Token {
    uid_t uid = 0;
    std::string processName;
    std::vector<std::string> permissions;
};

// A token's id is its place in the table plus one.
using TokenTable = std::vector<Token>;

// Written only before there is another thread.
TokenTable& Tokens() {
    static Linux::Immortal<TokenTable> tokens;
    return tokens.value;
}

uid_t UidOfUser(const JsonNode& node) {
    const std::string name = node.Text();
    std::vector<char> texts(1024);
    passwd entry{};
    passwd* found = nullptr;
    while (getpwnam_r(name.c_str(), &entry, texts.data(), texts.size(), &found) == ERANGE) {
        texts.resize(texts.size() * 2);
    }
    if (found == nullptr) {
        node.Fail("there is no user \"" + name + "\"");
    }
    return entry.pw_uid;
}

uid_t ReadUid(const JsonNode& entry) {
    const JsonNode uid = entry.Optional("uid");
    const JsonNode user = entry.Optional("user");
    if (uid.IsPresent() == user.IsPresent()) {
        entry.Fail("must have either \"uid\" or \"user\"");
        return 0;
    }
    // The largest uid means "no uid" to the kernel.
    return uid.IsPresent() ? uid.Number<uid_t>(0, static_cast<uid_t>(-2)) : UidOfUser(user);
}

Token ReadToken(const JsonNode& entry) {
    entry.AllowKeys({"uid", "user", "process_name", "permissions"});
    Token token{ReadUid(entry), entry.Required("process_name").Text(),
                ReadList(entry.Optional("permissions"), &JsonNode::Text)};
    if (token.processName.empty()) {
        entry.Optional("process_name").Fail("must not be empty");
    }
    return token;
}

TokenTable ReadTable(const JsonNode& root) {
    root.AllowKeys({"tokens"});
    TokenTable table;
    for (const JsonNode& entry : root.Required("tokens").Elements()) {
        Token token = ReadToken(entry);
        if (std::ranges::find(table, token.uid, &Token::uid) != table.end()) {
            entry.Fail("uid " + std::to_string(token.uid) + " has an entry already");
        }
        table.push_back(std::move(token));
    }
    return table;
}

// Whether only root can have written what the descriptor reads.
bool IsRootsAlone(int fd) {
    struct stat status {};
    return fstat(fd, &status) == 0 && S_ISREG(status.st_mode) && status.st_uid == 0 &&
           (status.st_mode & (S_IWGRP | S_IWOTH)) == 0;
}

Result<TokenTable> LoadTable(const std::string& path) {
    const Linux::UniqueFd file(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY));
    if (!file) {
        return errno == ENOENT ? Result<TokenTable>(TokenTable()) : Linux::LastError();
    }
    if (!IsRootsAlone(file.Get())) {
        return Failure("must be a regular file that belongs to root and that no other user may write");
    }
    const Result<std::string> text = Linux::ReadFile(file.Get());
    return text ? Linux::ReadJson(*text, ReadTable) : text.Why();
}

// Null for an id without a token.
const Token* FindToken(uint32_t tokenId) {
    return tokenId != 0 && tokenId <= Tokens().size() ? &Tokens()[tokenId - 1] : nullptr;
}

}  // namespace

Result<void> Linux::LoadAccessTokens() {
    const std::string path = GetSettings().etcDirectory + FileName::kTokens;
    Result<TokenTable> table = LoadTable(path);
    if (!table) {
        return table.Why().In(path);
    }
    Tokens() = std::move(*table);
    return {};
}

uint32_t Linux::TokenOfUid(uid_t uid) {
    const auto found = std::ranges::find(Tokens(), uid, &Token::uid);
    return found == Tokens().end() ? 0 : static_cast<uint32_t>(found - Tokens().begin()) + 1;
}

int32_t AccessTokenKit::GetNativeTokenInfo(uint32_t tokenId, NativeTokenInfo& info) {
    const Token* token = FindToken(tokenId);
    if (token == nullptr) {
        return -1;
    }
    info.processName = token->processName;
    return 0;
}

int32_t AccessTokenKit::VerifyAccessToken(uint32_t tokenId, const std::string& permission) {
    const Token* token = FindToken(tokenId);
    const bool isGranted =
        token != nullptr && std::ranges::find(token->permissions, permission) != token->permissions.end();
    return isGranted ? PERMISSION_GRANTED : PERMISSION_DENIED;
}

}  // namespace KITE
