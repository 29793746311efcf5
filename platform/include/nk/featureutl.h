// Run-time feature switches: /features/ids/<n>, an integer where 0 means on (the default).
#pragma once

#include <functional>

namespace nk::featureutl {

int init();
void uninit();
// The feature's value; 0 when it is unset or unreadable.
int get_feature(int feature);
// Readable when a feature's value may have changed.
int get_fd();
// Drains the descriptor and calls the callback of every feature whose value changed since
// it was last seen; the number of callbacks called, or -1 before init().
int read_fd();
// 0 on success; -1 before init(). An empty callback removes the feature's one.
int set_on_feature_change(int feature, std::function<void(int)> callback);

}  // namespace nk::featureutl
