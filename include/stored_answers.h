// Device-id answers from the stored inventory while the cloud's list loads. After a restart
// the store already knows the devices the other daemons ask about; holding those answers
// behind a slow or silent cloud would make every asker time out.
#pragma once

#include <string>
#include <vector>

#include "device.h"

// Learns the ids of the stored devices by their local MACs; once per loading phase.
void remember_stored_ids(const std::vector<Device>& stored);
// The next loading phase reads the store again.
void forget_stored_ids();
bool stored_ids_known();
// Answers the queued requests whose MAC the store knows; the others stay queued, in order,
// for the loaded inventory to answer.
void answer_from_stored_ids();
