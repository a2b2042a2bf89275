#include "services/common/service.h"

#include "base/trace.h"
#include "platform/oka_timer.h"

namespace services {

namespace {

int serve(const service& run) {
    oka_mailbox root = oka_create_mailbox(run.root_mailbox, 0);
    if (root == OKA_MAILBOX_NONE) {
        TRACE_ERROR(
            "%s cannot start without its mailbox '%s': the unit may have one already, or the directory that "
            "OKA_DIR names is not ours to write",
            run.name, run.root_mailbox);
        return exit_failure;
    }
    bool serves = run.start(root);
    while (serves) {
        oka_message* message = oka_receive(nullptr, OKA_WAIT_FOREVER, OKA_ANY_SENDER);
        if (!message)
            break; // asked to end
        serves = run.handle(message);
        oka_free(&message);
    }
    run.stop();
    return serves ? 0 : exit_failure;
}

} // namespace

bool start_platform(const char* name) {
    int tracing = zeb_init();
    if (tracing == 0 || tracing == 4)
        zeb_register_thread_name(name);
    return oka_timer_service_init() && oka_init(37, 0, 0, 0, 0) == 0;
}

int run_service(const service& run) {
    int status = start_platform(run.name) ? serve(run) : exit_failure;
    (void)oka_timer_service_stop();
    oka_exit();
    return status;
}

} // namespace services
