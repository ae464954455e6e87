/* A location daemon's part in 6 GHz at standard power: it answers the pending location request, if there is one. */
#include <stdio.h>
#include <vela/board/board.h>
#include <vela/mesh/afc.h>

int main(void)
{
    char request[256];

    if (!board_requires_afc_for_6g(board_identify())) {
        printf("this board needs no AFC\n");
        return 0;
    }
    printf("AFC is %s\n", afc_state_strs[get_afc_state()]);

    snprintf(request, sizeof request, "%s",
             get_location_request_id()); /* the next call overwrites the library's text */
    if (request[0] == '\0') return 0;
    printf("location for request %s acquired\n", request);
    set_afc_state(AFC_LOCATION_ACQUIRED); /* the system script goes on from here; the request is forgotten */
    return 0;
}
