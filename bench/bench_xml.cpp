// The smallest program that links libxml2, as a yardstick for bench/run. bench_xml
// alone does nothing; bench_xml FILE parses a document and prints, as one line of
// JSON, how much memory it took at its peak.

#include <libxml/parser.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

static long status_kib(const char* field) {
    FILE* status = fopen("/proc/self/status", "re");
    if (status == nullptr) return 0;
    char line[256];
    long kib = 0;
    while (fgets(line, sizeof(line), status) != nullptr) {
        if (strncmp(line, field, strlen(field)) == 0) kib = atol(line + strlen(field));
    }
    (void)fclose(status);
    return kib;
}

int main(int argc, char** argv) {
    xmlInitParser();
    if (argc == 1) return 0;
    const long before_kib = status_kib("VmRSS:");
    xmlDoc* document = xmlReadFile(argv[1], nullptr, XML_PARSE_NONET);
    if (document == nullptr) return 1;
    xmlFreeDoc(document);
    printf("{\"peak_kib\": %ld}\n", status_kib("VmHWM:") - before_kib);
    return 0;
}
