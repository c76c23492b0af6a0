// macOS: administrator rights through the Security framework.
#include <Security/Authorization.h>
#include <unistd.h>

#include "platform/admin.h"

namespace trv::platform {

namespace {
// Interaction allowed (1), extend rights (2), pre-authorize (16): the system
// may show its password dialog now, and the rights are kept on the reference
// for the program started next.
constexpr AuthorizationFlags kRightsFlags = kAuthorizationFlagInteractionAllowed |
                                            kAuthorizationFlagExtendRights |
                                            kAuthorizationFlagPreAuthorize;
static_assert(kRightsFlags == 19);
}  // namespace

bool admin_create(void **ref) {
  AuthorizationRef made = nullptr;
  if (AuthorizationCreate(nullptr, kAuthorizationEmptyEnvironment, kAuthorizationFlagDefaults,
                          &made) != errAuthorizationSuccess)
    return false;
  // AuthorizationRef points to const; the exported global holding it is a
  // plain void *.
  *ref = const_cast<void *>(static_cast<const void *>(made));
  return true;
}

bool admin_copy_rights(void *ref) {
  AuthorizationItem item = {"system.privilege.admin", 0, nullptr, 0};
  AuthorizationRights rights = {1, &item};
  return AuthorizationCopyRights(static_cast<AuthorizationRef>(ref), &rights,
                                 kAuthorizationEmptyEnvironment, kRightsFlags,
                                 nullptr) == errAuthorizationSuccess;
}

bool admin_execute(void *ref, const char *path, const char *const args[], AdminRun *run) {
  *run = AdminRun{};
  if (path == nullptr || access(path, X_OK) != 0) return false;
  std::FILE *pipe = nullptr;
  // The one call that starts a program with the rights just obtained; it is
  // deprecated but has no replacement that a library can use on its own.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wdeprecated-declarations"
  const OSStatus status = AuthorizationExecuteWithPrivileges(
      static_cast<AuthorizationRef>(ref), path, kAuthorizationFlagDefaults,
      const_cast<char *const *>(args), &pipe);
#pragma GCC diagnostic pop
  if (status != errAuthorizationSuccess || pipe == nullptr) return false;
  run->stream = pipe;
  run->fd = fileno(pipe);
  // The system starts the program through a helper of its own and gives no
  // process id; the end of its output is the end of the run.
  run->pid = -1;
  return true;
}

void admin_finish(AdminRun *run) {
  if (run->stream != nullptr) {
    std::fclose(run->stream);
  } else if (run->fd >= 0) {
    close(run->fd);
  }
  *run = AdminRun{};
}

}  // namespace trv::platform
