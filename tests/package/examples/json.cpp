// json.cpp: reads a features document, and writes one value of its own.
#include <orvanta/foundation/json.h>

#include <cstdio>
#include <string>

int main() {
    const JSON::root document = JSON::parse(R"({
        "checkDate": "2026-11-21T16:01:43Z",
        "features": [ { "name": "surround", "source": "granted" },
                      { "name": "video-wall", "params": { "outputs": 4 }, "source": "installed" } ] })");
    if (!document) {
        std::fputs("the document is not JSON\n", stderr);
        return 1;
    }

    // A look-up that leads nowhere returns null: each step is tested, none throws.
    if (const JSON* features = document->get("features"))
        for (const JSON::root& feature : features->values())
            if (const std::string* name = jsonText(feature->get("name")))
                std::printf("%s\n", name->c_str());
    if (const JSON* outputs = document->getPath("features.1.params.outputs"))
        std::printf("outputs: %g\n", double(*outputs));

    // Whoever makes a value owns it, until a container takes it over.
    const JSON::root answer = JSON::Object();
    answer->set("ready", JSON::Boolean(true));
    answer->set("wall", document->movePath("features.1.params"));
    std::string text;
    answer->stringify(text, -1);
    std::printf("%s\n", text.c_str());
}
