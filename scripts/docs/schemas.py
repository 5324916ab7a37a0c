# SPDX-License-Identifier: Apache-2.0
"""The keys of a JSON Schema as rows of a table."""
import json

from prose import code, plain

TYPES = {"integer": "whole number", "number": "number", "string": "text", "boolean": "`true` or `false`",
         "object": "object", "array": "list"}

# Patterns in words.
PATTERNS = {
    "^[A-Za-z0-9_-]{1,64}$": "1 to 64 letters, digits, `_` and `-`",
    "^/": "absolute path",
    "^[^/]+$": "text without slashes",
    "^[!-~]+$": "printable ASCII without spaces",
    "^[^\\u0000-\\u001f\\u007f]*$": "text without control characters",
    "^[^\\u0000-\\u001f\\u007f-][^\\u0000-\\u001f\\u007f]*$":
        "text without control characters that doesn't begin with `-`",
    "^[0-9a-f]{8}$": "eight hexadecimal digits",
}


def resolved(schema, root):
    """What a $ref names, with what stands beside it on top."""
    if "$ref" not in schema:
        return schema
    named = root
    for step in schema["$ref"].removeprefix("#/").split("/"):
        named = named[step]
    return {**resolved(named, root), **{key: value for key, value in schema.items() if key != "$ref"}}


def bounds(low, high):
    low, high = (int(bound) if isinstance(bound, float) and bound.is_integer() else bound for bound in (low, high))
    if low is not None and high is not None:
        return f"{low} to {high}"
    return f"{low} or more" if low is not None else f"{high} at most" if high is not None else ""


def pattern(schema):
    return PATTERNS.get(schema["pattern"], "matching " + code(schema["pattern"]))


def value(schema, root):
    """What may stand there, in words."""
    schema = resolved(schema, root)
    if "const" in schema:
        return code(json.dumps(schema["const"], ensure_ascii=False))
    if "enum" in schema:
        return ", ".join(code(json.dumps(each, ensure_ascii=False)) for each in schema["enum"])
    kind = schema.get("type")
    if kind == "array":
        several = bounds(schema.get("minItems"), schema.get("maxItems"))
        of = resolved(schema.get("items", {}), root)
        what = "objects" if "oneOf" in of or of["type"] == "object" else TYPES[of["type"]] + "s"
        said = f"list of {several} {what}" if several else f"list of {what}"
        return said + (", each " + pattern(of) if "pattern" in of else "")
    if kind == "object" and isinstance(schema.get("additionalProperties"), dict):
        return "object of any keys, each " + value(schema["additionalProperties"], root)
    said = [PATTERNS.get(schema.get("pattern"), TYPES[kind])]
    if kind in ("integer", "number"):
        if "exclusiveMinimum" in schema:
            said.append(f"above {schema['exclusiveMinimum']}")
        said.append(bounds(schema.get("minimum"), schema.get("maximum")))
    if kind == "string":
        length = bounds(schema.get("minLength"), schema.get("maxLength"))
        if length and length != "1 or more":
            said.append(f"{length} characters")
        elif length:
            said.append("not empty")
        if schema.get("pattern", "^/") not in PATTERNS:
            said.append(pattern(schema))
    return ", ".join(part for part in said if part)


def rows(schema, root, prefix=""):
    """(key, whether it is needed, value, description) of each, those of objects inside others by a dot,
    those of each object of a list by []."""
    for key, raw in schema.get("properties", {}).items():
        at = resolved(raw, root)
        name = prefix + key
        said = plain(at.get("description", ""))
        if "default" in at:
            said = f"{said} Default: {code(json.dumps(at['default']))}.".strip()
        yield name, key in schema.get("required", ()), value(at, root), said
        if at.get("type") == "object":
            yield from rows(at, root, name + ".")
        inside = resolved(at.get("items", {}), root) if at.get("type") == "array" else {}
        if inside.get("type") == "object":
            yield from rows(inside, root, name + "[].")


def kinds(schema, root):
    """(key of the list, its schemas) for each list whose objects are of several kinds."""
    for key, raw in schema.get("properties", {}).items():
        inside = resolved(resolved(raw, root).get("items", {}), root)
        if "oneOf" in inside:
            yield key, [resolved(each, root) for each in inside["oneOf"]]
