#include <tern-basic-log/root_logger.h>

int main() {
    mwl::Log::RootLogger::GetInstance().Print(TernLogLevel::Notice, "the consumer's %s", "message");
    return 0;
}
