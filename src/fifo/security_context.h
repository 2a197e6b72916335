// The guarded layer over libselinux, and the conversions between a full context (user:role:type:level) and the
// type-only Vorn context that is used across domains. All functions may be called from any thread; none throws.
#ifndef TARVO_FIFO_SECURITY_CONTEXT_H
#define TARVO_FIFO_SECURITY_CONTEXT_H

#include <sys/types.h>

#include <cstdint>

// Flag bits of AuthRestoreCon.
constexpr unsigned int AUTH_RESTORECON_SYSLOG_CHANGES = 1;
constexpr unsigned int AUTH_RESTORECON_IGNORE_NOENTRY = 2;
constexpr unsigned int AUTH_RESTORECON_IGNORE_MOUNTS = 4;

// 0 when the installed policy lets everybody read its file contexts; -EACCES when its mode does not, or the negated
// errno of lstat.
int CheckContextsAccess();

extern "C" {

// The labelling switch: positive means on. Fixed at -1 in this build.
int IsAuthEnabled(void);

// Context of process `pid`, to be released with AuthFreeCon. The result of getpidcon; 1 with `con` untouched when
// labelling is off.
int AuthGetPidCon(pid_t pid, char **con);

// Context of this process, to be released with AuthFreeCon. The result of getcon; 1 with `con` untouched when labelling
// is off.
int AuthGetCon(char **con);

// Labels a file. The result of setfilecon; 0 without a call when labelling is off.
int AuthSetFileCon(const char *path, const char *con);
int AuthSelinuxSetFileCon(const char *path, const char *con);

// Changes the context of this process. The result of setcon; 0 without a call when labelling is off.
int AuthSetCon(const char *con);

// Releases a context that libselinux returned; null is ignored.
void AuthFreeCon(char *con);

// Releases what the conversions below returned; null is ignored.
void AuthProxyFree(void *ptr);

// Restores the label that the policy gives `path`; `flags` are AUTH_RESTORECON_* bits, others are dropped. The result
// of selinux_restorecon. Works whether labelling is on or off, like everything that follows.
int AuthRestoreCon(const char *path, unsigned int flags);
int AuthSelinuxRestoreCon(const char *path, unsigned int flags);

// 1 enforcing, 0 permissive, -1 failure.
int AuthSecurityGetEnforce(void);

// 0 when `con` is valid under the policy in force, else -1.
int AuthSecurityCheckContext(const char *con);

// Computes the access vector that the policy allows `scon` on `tcon`; `av` holds its initial and then its resulting
// value. The result of security_compute_av.
int AuthSecurityComputeAv(const char *scon, const char *tcon, uint16_t tclass, uint32_t requested, uint32_t *av);

// Permission and class numbers of their names; 0 when there is none.
uint32_t AuthStringToAvPerm(uint16_t tclass, const char *name);
uint16_t AuthStringToSecurityClass(const char *name);

// The type field of a full context of four fields (empty fields do not count), "" for a context of any other shape.
// 0, with `*out` to be released with AuthProxyFree; -1 for a null or empty `con`, with `*out` untouched, and without
// memory, with `*out` null. `out` must not be null.
int GetVornConBySelinuxCon(const char *con, char **out);

// "system_u:object_r:" + `con` + ":s0". Results as GetVornConBySelinuxCon.
int GetSelinuxConByVornCon(const char *con, char **out);

} // extern "C"

#endif // TARVO_FIFO_SECURITY_CONTEXT_H
