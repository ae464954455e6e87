/* Takes the next offer of a remote-console session and answers it: ./example-webrtc SESSION */
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <vela/services/webrtc.h>

int main(int argc, char **argv)
{
    sdp_request request;
    webrtc_inform inform;
    char *taken = NULL;
    int status = 1;

    if (argc != 2) {
        fprintf(stderr, "usage: %s SESSION\n", argv[0]);
        return 2;
    }
    memset(&inform, 0, sizeof inform);
    memset(&request, 0, sizeof request);
    snprintf(request.stun_server, sizeof request.stun_server, "stun:stun.vela.example");
    if (get_next_sdp_offer(argv[1], &request, &inform) == 0) {
        printf("offer of %s:\n%s\n", inform.uuid, inform.offer);
        /* A real agent hands the offer to its media stack and gets the answer from it. */
        if (set_sdp_answer(inform.uuid, "v=0\r\n", &taken) == 0 && taken) {
            printf("session %s is open\n", taken);
            status = 0;
        }
        printf("%d open\n", get_all_sdp_sessions(NULL));
        close_sdp_session(inform.uuid);
    }
    free(taken);
    free_webrtc_inform(&inform); /* also after a failure */
    return status;
}
