/* The shared library's own translation unit: everything it exports comes from the core archive,
 * linked whole and filtered by the version script. */
typedef int qxrt_exports_translation_unit_is_not_empty;
