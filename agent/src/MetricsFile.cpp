#include "MetricsFile.h"

#include <sys/stat.h>

#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <map>
#include <sstream>

namespace HostAgent {

std::string Label(const std::string& name, const std::string& value) {
    std::string escaped;
    for (char c : value) {
        if (c == '\\' || c == '"') {
            escaped += '\\';
            escaped += c;
        } else if (c == '\n') {
            escaped += "\\n";
        } else {
            escaped += c;
        }
    }
    return name + "=\"" + escaped + "\"";
}

std::string PrometheusText(const std::vector<Framework::TaskMetric>& metrics) {
    std::vector<std::string> order;
    std::map<std::string, std::vector<const Framework::TaskMetric*>> byName;
    for (const Framework::TaskMetric& metric : metrics) {
        auto& samples = byName[metric.name];
        if (samples.empty()) {
            order.push_back(metric.name);
        }
        samples.push_back(&metric);
    }
    std::ostringstream text;
    for (const std::string& name : order) {
        const auto& samples = byName[name];
        text << "# HELP " << name << " " << samples.front()->help << "\n";
        text << "# TYPE " << name << " " << samples.front()->type << "\n";
        for (const Framework::TaskMetric* sample : samples) {
            text << name;
            if (!sample->labels.empty()) {
                text << "{" << sample->labels << "}";
            }
            // Whole numbers as such: counters read better without an exponent.
            if (sample->value == std::floor(sample->value) && std::fabs(sample->value) < 1e15) {
                text << " " << static_cast<long long>(sample->value) << "\n";
            } else {
                text << " " << sample->value << "\n";
            }
        }
    }
    return text.str();
}

bool WriteMetricsFile(const std::string& path, const std::string& text, std::string& error) {
    // A name a textfile collector skips while it is being written (it reads *.prom only).
    const std::string temporary = path + ".tmp";
    {
        std::ofstream out(temporary, std::ios::binary | std::ios::trunc);
        out << text;
        out.flush();
        if (!out) {
            error = "cannot write " + temporary + ": " + std::strerror(errno);
            std::remove(temporary.c_str());
            return false;
        }
    }
    chmod(temporary.c_str(), 0644);
    if (std::rename(temporary.c_str(), path.c_str()) != 0) {
        error = "cannot rename " + temporary + " to " + path + ": " + std::strerror(errno);
        std::remove(temporary.c_str());
        return false;
    }
    return true;
}

}  // namespace HostAgent
