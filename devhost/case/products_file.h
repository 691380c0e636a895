/* The products of a replay, from the command line or a file. */
#ifndef DEVHOST_PRODUCTS_FILE_H
#define DEVHOST_PRODUCTS_FILE_H

#include <cstdint>

#include <string>
#include <vector>

#include "../base/json.h"

struct replay_product {
    std::string name;
    std::vector<std::string> modules;
    int64_t count;
    std::string status;
};

/* Reads texts of the form NAME:MODULE,MODULE[:COUNT[:STATUS]], then a JSON file, unless its name is
 * empty: {"NAME": {"modules": [...], "count": 3, "status": "working"}}, also as the member "products"
 * of a scenario. Throws devhost_error. */
std::vector<replay_product> products_read(const std::vector<std::string> &texts,
                                          const std::string &file);
/* The same of a JSON object; where: what contains it, for errors. */
std::vector<replay_product> products_of_json(const std::string &where, const json_value &object);
/* Whether a JSON file looks like a list of products. */
bool products_is_file(const std::string &file);
/* Whether it is the truth that "synthesize" wrote. */
bool products_is_truth(const std::string &file);

#endif
