/*
 * Jansson as the platform exports it: libwdu_jansson exports every function of its API under the
 * prefix "wdu_". Sources use Jansson's own names and include this header instead of jansson.h.
 * The names are mapped before Jansson's header declares them, so that its inline functions call
 * the exported functions too.
 *
 * The platform sets the process-wide allocator hooks: plug-ins must not call json_set_alloc_funcs.
 * Free text from json_dumps with the function that json_get_alloc_funcs returns.
 */
#ifndef OXNI_BASE_JSON_H
#define OXNI_BASE_JSON_H

/* clang-format off */
#define json_delete wdu_json_delete
#define json_true wdu_json_true
#define json_false wdu_json_false
#define json_null wdu_json_null
#define json_sprintf wdu_json_sprintf
#define json_vsprintf wdu_json_vsprintf
#define json_string wdu_json_string
#define json_stringn wdu_json_stringn
#define json_string_nocheck wdu_json_string_nocheck
#define json_stringn_nocheck wdu_json_stringn_nocheck
#define json_string_value wdu_json_string_value
#define json_string_length wdu_json_string_length
#define json_string_set wdu_json_string_set
#define json_string_setn wdu_json_string_setn
#define json_string_set_nocheck wdu_json_string_set_nocheck
#define json_string_setn_nocheck wdu_json_string_setn_nocheck
#define json_integer wdu_json_integer
#define json_integer_value wdu_json_integer_value
#define json_integer_set wdu_json_integer_set
#define json_real wdu_json_real
#define json_real_value wdu_json_real_value
#define json_real_set wdu_json_real_set
#define json_number_value wdu_json_number_value
#define json_array wdu_json_array
#define json_array_size wdu_json_array_size
#define json_array_get wdu_json_array_get
#define json_array_set_new wdu_json_array_set_new
#define json_array_append_new wdu_json_array_append_new
#define json_array_insert_new wdu_json_array_insert_new
#define json_array_remove wdu_json_array_remove
#define json_array_clear wdu_json_array_clear
#define json_array_extend wdu_json_array_extend
#define json_object wdu_json_object
#define json_object_size wdu_json_object_size
#define json_object_get wdu_json_object_get
#define json_object_getn wdu_json_object_getn
#define json_object_set_new wdu_json_object_set_new
#define json_object_setn_new wdu_json_object_setn_new
#define json_object_set_new_nocheck wdu_json_object_set_new_nocheck
#define json_object_setn_new_nocheck wdu_json_object_setn_new_nocheck
#define json_object_del wdu_json_object_del
#define json_object_deln wdu_json_object_deln
#define json_object_clear wdu_json_object_clear
#define json_object_update wdu_json_object_update
#define json_object_update_existing wdu_json_object_update_existing
#define json_object_update_missing wdu_json_object_update_missing
#define json_object_update_recursive wdu_json_object_update_recursive
#define json_object_iter wdu_json_object_iter
#define json_object_iter_at wdu_json_object_iter_at
#define json_object_iter_next wdu_json_object_iter_next
#define json_object_iter_key wdu_json_object_iter_key
#define json_object_iter_key_len wdu_json_object_iter_key_len
#define json_object_iter_value wdu_json_object_iter_value
#define json_object_iter_set_new wdu_json_object_iter_set_new
#define json_object_key_to_iter wdu_json_object_key_to_iter
#define json_object_seed wdu_json_object_seed
#define json_dumps wdu_json_dumps
#define json_dumpb wdu_json_dumpb
#define json_dumpf wdu_json_dumpf
#define json_dumpfd wdu_json_dumpfd
#define json_dump_file wdu_json_dump_file
#define json_dump_callback wdu_json_dump_callback
#define json_loads wdu_json_loads
#define json_loadb wdu_json_loadb
#define json_loadf wdu_json_loadf
#define json_loadfd wdu_json_loadfd
#define json_load_file wdu_json_load_file
#define json_load_callback wdu_json_load_callback
#define json_equal wdu_json_equal
#define json_copy wdu_json_copy
#define json_deep_copy wdu_json_deep_copy
#define json_pack wdu_json_pack
#define json_pack_ex wdu_json_pack_ex
#define json_vpack_ex wdu_json_vpack_ex
#define json_unpack wdu_json_unpack
#define json_unpack_ex wdu_json_unpack_ex
#define json_vunpack_ex wdu_json_vunpack_ex
#define json_set_alloc_funcs wdu_json_set_alloc_funcs
#define json_get_alloc_funcs wdu_json_get_alloc_funcs
/* clang-format on */

#include <jansson.h>

#endif
