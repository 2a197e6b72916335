// Private members that a test has to reach: a counter to make it run over, a lock to show who takes it. In this
// namespace:
//
//   struct Users {
//       using Type = std::atomic<int32_t> SharedMutex::*;
//       friend Type Get(Users);
//   };
//   template struct Reach<Users, &SharedMutex::users>;
//
// Then `mutex.*Get(Users())` is the member.
#ifndef TARVO_SUPPORT_REACH_H
#define TARVO_SUPPORT_REACH_H

namespace tarvo_test {

template <typename Member, typename Member::Type Pointer>
struct Reach {
    friend typename Member::Type Get(Member) { return Pointer; }
};

} // namespace tarvo_test

#endif // TARVO_SUPPORT_REACH_H
