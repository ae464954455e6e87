// ./dev demo: the library at its work on a simulated site.
#include "scenes.h"
#include "site/world.h"

int main()
{
    site::enter_world();
    site::story story("libvela on a simulated site: own namespaces, own /proc, /etc, /tmp and log file");
    tell_of_the_device(story);
    tell_of_a_crash(story);
    tell_of_local_ipc(story);
    tell_of_discovery(story);
    return story.end();
}
