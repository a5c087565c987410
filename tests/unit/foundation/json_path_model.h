// json_path_model.h: what dotted paths find and make, in the simplest form: a tree of values, one step per segment.
#pragma once

#include <cstddef>
#include <map>
#include <string>
#include <vector>

#include "foundation/json.h"

// JSONPathModel is a slot and what is in it.
struct JSONPathModel {
    enum Kind { Hole, Plain, Elements, Members };
    using Segments = std::vector<std::string>;

    Kind kind = Hole;
    double number = 0;
    bool null = false;
    std::vector<JSONPathModel> elements;
    std::map<std::string, JSONPathModel> members;

    // find returns the slot that a path leads to, or null if it leads to none. `throughHole` tells of an empty slot on
    // the way, which only reading puts up with.
    JSONPathModel* find(const Segments& segments, bool& throughHole) {
        JSONPathModel* current = this;
        throughHole = false;
        for (const std::string& segment : segments) {
            throughHole = throughHole || current->kind == Hole;
            if (isIndex(segment)) {
                if (current->kind != Elements || indexOf(segment) >= current->elements.size())
                    return nullptr;
                current = &current->elements[indexOf(segment)];
            } else {
                if (current->kind != Members || current->members.count(segment) == 0)
                    return nullptr;
                current = &current->members[segment];
            }
        }
        return current;
    }

    // slotFor makes what is missing; null if the last index lies after the end, which no caller may ask for.
    JSONPathModel* slotFor(const Segments& segments) {
        JSONPathModel* current = this;
        for (std::size_t place = 0; place < segments.size(); ++place) {
            const std::string& segment = segments[place];
            current->becomes(isIndex(segment) ? Elements : Members);
            if (!isIndex(segment)) {
                current = &current->members[segment];
                continue;
            }
            const std::size_t index = indexOf(segment);
            if (index >= current->elements.size()) {
                if (place + 1 == segments.size())
                    return nullptr;
                current->elements.resize(index, nullModel());
                current->elements.emplace_back();
            }
            current = &current->elements[index];
        }
        return current;
    }

    std::string describe() const {
        std::string out;
        switch (kind) {
        case Hole:
            return "-";
        case Elements:
            for (const JSONPathModel& element : elements)
                out += element.describe() + ",";
            return "[" + out + "]";
        case Members:
            for (const auto& [key, member] : members)
                out += key + ":" + member.describe() + ",";
            return "{" + out + "}";
        case Plain:
            break;
        }
        return null ? "null" : JSON::Number(number)->toString();
    }

private:
    static bool isIndex(const std::string& segment) {
        return segment.find_first_not_of("0123456789") == std::string::npos;
    }

    static std::size_t indexOf(const std::string& segment) { return segment.empty() ? 0 : std::stoul(segment); }

    static JSONPathModel nullModel() {
        JSONPathModel model;
        model.kind = Plain;
        model.null = true;
        return model;
    }

    void becomes(Kind wanted) {
        if (kind != wanted) {
            *this = JSONPathModel();
            kind = wanted;
        }
    }
};
