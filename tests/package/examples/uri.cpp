// uri.cpp: takes an address apart, changes it, and resolves a reference against it.
#include <orvanta/foundation/uri.h>

#include <cstdio>

int main() {
    URI stream = URI::fromString("HTTP://Player.Example:8080/live/../video%20wall/main.m3u8?rate=50&lang=de");
    std::printf("%s\n", stream.toString().c_str());
    std::printf("host %s, port %u, last segment %s\n", stream.origin.host.c_str(), stream.origin.port,
                stream.path.lastSegmentName().c_str());

    // Components are kept decoded, and escaped again where the text is made.
    URI::Query query = stream.queryString();
    query["lang"] = "a & b";
    stream.setQuery(query);
    std::printf("%s\n", stream.toString().c_str());

    URI part = URI::fromString("../audio/de.aac");
    part.resolve(stream);
    std::printf("%s\n", part.toString().c_str());
}
