// The scenes of the demo, each told by one source.
#pragma once

#include "site/story.h"

void tell_of_the_device(site::story &story);
void tell_of_a_crash(site::story &story);
void tell_of_local_ipc(site::story &story);
void tell_of_discovery(site::story &story);
