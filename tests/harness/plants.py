"""The plant of the tests: a driver with a tag of every type, and users with and without rights."""

# Tag ids are positions: name and value say the type.
_TAGS = [
    {"name": "i2", "type": "i2", "value": -2},
    {"name": "i4", "type": "i4", "value": -40000},
    {"name": "r4", "type": "r4", "value": 2.5},
    {"name": "r8", "type": "r8", "value": 0.1},
    {"name": "str", "type": "str", "value": "valve"},
    {"name": "bool", "type": "bool", "value": True},
    {"name": "i1", "type": "i1", "value": -1},
    {"name": "ui1", "type": "ui1", "value": 200},
    {"name": "ui2", "type": "ui2", "value": 65535},
    {"name": "ui4", "type": "ui4", "value": 4294967295},
    {"name": "i8", "type": "i8", "value": 5},
    {"name": "int", "type": "int", "value": -7},
    {"name": "uint", "type": "uint", "value": 7},
    {"name": "date", "type": "date", "value": 45000.5},
    {"name": "empty", "type": "empty"},
    {"name": "null", "type": "null"},
    {"name": "cy", "type": "cy"},
    {"name": "ui8", "type": "ui8"},
    {"name": "array", "type": "array"},
    {"name": "水位", "type": "i4", "value": 77},
    {"name": "a", "type": "i4", "value": 1},
    {"name": "b", "type": "i4", "value": 2},
    {"name": "c", "type": "i4", "value": 3},
]

SMALL_PLANT = {
    "name": "small",
    "project": "Line1",
    "title": "A small plant",
    "tick": 0,
    "users": [
        {"name": "operator", "password": "password", "rights": 8},
        {"name": "guest", "password": "", "rights": 0},
        {"name": "张三", "password": "密码", "rights": 8},
    ],
    "drivers": [
        {"name": "line1", "id": 0, "tags": _TAGS},
        {"name": "锅炉", "id": 1, "tags": [{"name": "x", "type": "i4", "value": 11}]},
        {"name": "wide", "id": 7,
         "tags": [{"name": "t%04d" % i, "type": "i4", "value": i} for i in range(1200)]},
        {"name": "none", "id": 3, "tags": []},
    ],
}

LINE1 = {tag["name"]: index for index, tag in enumerate(_TAGS)}
