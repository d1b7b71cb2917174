# Who the tree verbs write as (--as, the local administrator's group, repair-acl), beside a
# started serve, on SQLite and on PostgreSQL. Included from this folder's CMakeLists.txt.
foreach(backend sqlite postgresql)
    set(name apps_acl_verbs_${backend})
    add_test(NAME ${name}
             COMMAND ${CMAKE_CURRENT_SOURCE_DIR}/acl_verbs_test.sh $<TARGET_FILE:docadmin> ${backend})
    set_tests_properties(${name} PROPERTIES TIMEOUT 600 SKIP_RETURN_CODE 77)
endforeach()
set_tests_properties(apps_acl_verbs_postgresql PROPERTIES FIXTURES_REQUIRED db_pg
    ENVIRONMENT "DOCADMIN_PG_CONNINFO_FILE=${DB_PG_STATE}/conninfo")
