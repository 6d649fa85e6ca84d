#include "ControlSignals.h"
#include "HostAgentApp.h"

#include <Poco/Exception.h>

#include <iostream>

int main(int argc, char** argv) {
    // Before anything can start a thread: every thread inherits the blocked control signals, and
    // only the control loop takes them.
    HostAgent::BlockControlSignals();
    HostAgent::HostAgentApp app;
    try {
        app.init(argc, argv);
    } catch (const Poco::Exception& e) {
        std::cerr << "hostagent: " << e.displayText() << " (see hostagent --help)\n";
        return Poco::Util::Application::EXIT_USAGE;
    }
    return app.run();
}
