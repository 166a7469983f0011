// Noticing that a handler of the application has ended what its caller works on.
#pragma once

// Stands on the stack while handlers run that may end @p watched; whoever ends it calls tellGone().
template <typename T>
class Watch {
 public:
  explicit Watch(const T* watched) : watched_(watched), outer_(innermost) { innermost = this; }
  ~Watch() { innermost = outer_; }
  Watch(const Watch&) = delete;
  Watch& operator=(const Watch&) = delete;

  bool gone() const { return watched_ == nullptr; }

  static void tellGone(const T* watched) {
    for (Watch* watch = innermost; watch != nullptr; watch = watch->outer_)
      if (watch->watched_ == watched) watch->watched_ = nullptr;
  }

 private:
  static inline Watch* innermost = nullptr;
  const T* watched_;
  Watch* outer_;
};
