"""The schemas themselves: what they are written in, and with what they are tested."""

import os
import re
import unittest
from importlib import metadata

import jsonschema
from schema_support import SCHEMAS, load_schema, schema_names

DIALECT = "https://json-schema.org/draft/2020-12/schema"
DEBIAN = "/usr/lib/python3/dist-packages/"

# A misspelt keyword is no fault to the metaschema and says nothing. `format` and `contentEncoding` say nothing to most
# readers either.
KEYWORDS = """
    $schema $defs $ref $comment title description type enum const required properties additionalProperties propertyNames
    dependentRequired items contains minItems maxItems uniqueItems minLength pattern minimum maximum
    allOf anyOf oneOf not if then else
""".split()
OF_SCHEMAS = ("properties", "$defs")  # their members' names are free
LISTS_OF_SCHEMAS = ("allOf", "anyOf", "oneOf")
ONE_SCHEMA = ("additionalProperties", "propertyNames", "items", "contains", "not", "if", "then", "else")


def subschemas(schema):
    """Yields a schema and all within it."""
    yield schema
    if isinstance(schema, bool):
        return
    children = [schema[keyword] for keyword in ONE_SCHEMA if keyword in schema]
    children += [child for keyword in LISTS_OF_SCHEMAS for child in schema.get(keyword, [])]
    children += [child for keyword in OF_SCHEMAS for child in schema.get(keyword, {}).values()]
    for child in children:
        yield from subschemas(child)


class SchemaTest(unittest.TestCase):
    def each(self):
        names = schema_names()
        self.assertTrue(names)
        return [(name, load_schema(name)) for name in names]

    def test_validator_is_the_systems_own(self):
        "The validator is Debian's, not one that somebody installed beside it."
        print("jsonschema", metadata.version("jsonschema"), jsonschema.__file__)
        self.assertTrue(jsonschema.__file__.startswith(DEBIAN), jsonschema.__file__)

    def test_metaschema(self):
        "Each schema is one of the draft that it names, and has a title and a description."
        for name, schema in self.each():
            self.assertEqual(schema["$schema"], DIALECT, name)
            jsonschema.Draft202012Validator.check_schema(schema)
            self.assertTrue(schema["title"] and schema["description"], name)

    def test_keywords(self):
        "Only known keywords are used: others would say nothing."
        for name, schema in self.each():
            for part in subschemas(schema):
                self.assertEqual(set(part if isinstance(part, dict) else ()) - set(KEYWORDS), set(), name)

    def test_references(self):
        "Each reference leads to a definition of the same file, and each definition is used."
        for name, schema in self.each():
            used = {part["$ref"] for part in subschemas(schema) if isinstance(part, dict) and "$ref" in part}
            self.assertEqual(used, {"#/$defs/" + name for name in schema.get("$defs", {})}, name)

    def test_definitions_of_one_name_are_the_same(self):
        "Each file can be used alone; what several define under one name says the same, except the names of checks."
        known = {}
        for _, schema in self.each():
            for name, definition in schema.get("$defs", {}).items():
                if name != "check":
                    self.assertEqual(known.setdefault(name, definition), definition, name)

    def test_patterns_end_at_the_end(self):
        "No pattern lets a line feed pass at the end: $ alone does in some languages."
        for _, schema in self.each():
            for part in subschemas(schema):
                pattern = part.get("pattern", "") if isinstance(part, dict) else ""
                if "$" in pattern and not pattern.endswith("$(?!\\n)"):
                    self.assertTrue(re.search(pattern, "QUJD\n") and re.search(pattern, "\nQ\nU"), pattern)

    def test_readme_names_each_schema(self):
        "The list of schemas names each of them and no other."
        with open(os.path.join(SCHEMAS, "README.md"), encoding="utf-8") as stream:
            self.assertEqual(sorted(re.findall(r"^\| `([a-z-]+)\.json`", stream.read(), re.M)), schema_names())
