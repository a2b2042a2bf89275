#include "services/common/service.h"

#include "base/ignore_result.h"
#include "base/trace.h"
#include "platform/oka_timer.h"
#include "services/common/options.h"

namespace services {

namespace {

bool start_platform(const char* name) {
    int tracing = zeb_init();
    if (tracing == 0 || tracing == 4)
        zeb_register_thread_name(name);
    return oka_timer_service_init() && oka_init(37, 0, 0, 0, 0) == 0;
}

oka_mailbox create_root_mailbox(const service& of) {
    oka_mailbox root = oka_create_mailbox(of.root_mailbox, 0);
    if (root == OKA_MAILBOX_NONE)
        TRACE_ERROR(
            "%s cannot start without its mailbox '%s': it may be running in this unit already, or this "
            "user may not write to the directory that OKA_DIR names",
            of.name, of.root_mailbox);
    return root;
}

service_end serve(const service& run) {
    for (bool goes_on = true; goes_on;) {
        oka_message* message = oka_receive(nullptr, OKA_WAIT_FOREVER, OKA_ANY_SENDER);
        if (!message)
            return service_end::asked;
        goes_on = run.handle(message);
        oka_free(&message);
    }
    return service_end::by_itself;
}

service_end start_and_serve(const service& run) {
    oka_mailbox root = create_root_mailbox(run);
    if (root == OKA_MAILBOX_NONE)
        return service_end::not_started;
    service_end end = run.start(root) ? serve(run) : service_end::not_started;
    run.stop();
    return end;
}

} // namespace

service_end run_service(const service& run) {
    service_end end = start_platform(run.name) ? start_and_serve(run) : service_end::not_started;
    tavu::ignore_result(oka_timer_service_stop());
    oka_exit();
    return end;
}

int exit_status_of(service_end end) {
    return end == service_end::asked ? 0 : exit_failure;
}

} // namespace services
