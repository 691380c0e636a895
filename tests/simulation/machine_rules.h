/*
 * The grammar of random machines: JSON with apostrophes in place of quotation marks and commas that
 * may trail. In it:
 *
 *   <3-7>        a number from 3 to 7
 *   <0-3*TEXT>   so many TEXTs with commas between them
 *   <20%A|B>     A in 20 of 100 cases, else B, which may be missing
 *   <plain?A|B>  A on such machines ("plain", "sticky", "blamed", "odd"), else B
 *   <name>       a row of that name, by weight
 *   <who>        a product of the machine
 *   <failure>    a call of the plug-in, and an error with which it fails
 */
#ifndef MACHINE_RULES_H
#define MACHINE_RULES_H

#define DRIVER_FOLDER "{base}\\\\Quorvel\\\\OXNI3_CFG\\\\"
#define DATA_FOLDER   "{bin}\\\\..\\\\var\\\\bypass_mgr\\\\"
#define UPDATE_FILE   "'path':'" DRIVER_FOLDER "driver\\\\oxni_driver_updata.cfg'"

static const struct rule {
    const char *name;
    int weight;
    const char *text;
} s_rules[] = {
    {"module",       1,  "a_flt"                                                                                },
    {"module",       1,  "b_flt"                                                                                },
    {"module",       1,  "c_net"                                                                                },
    {"module",       1,  "d_sp"                                                                                 },
    {"module",       1,  "e_fs"                                                                                 },
    {"module",       1,  "load_driver"                                                                          },
    {"module",       1,  "oxnisp_driver"                                                                        },
    {"modules",      1,  "[<0-3*'<module>'>]"                                                                   },
    {"stranger",     1,  "<25%nt|<33%win32k|<50%tcpip|other>>>"                                                 },
    {"status",       1,  "<60%working|<50%bypass|initializing>>"                                                },
    {"own_status",   1,  "<sticky?<70%bypass|<status>>|<status>>"                                               },
    {"zone",         1,  "UTC"                                                                                  },
    {"zone",         1,  "Tokyo Standard Time"                                                                  },
    {"zone",         1,  "Pacific Standard Time"                                                                },
    {"zone",         1,  "India Standard Time"                                                                  },
    {"zone",         1,  "W. Europe Standard Time"                                                              },

 /* A product: what it is, and how it can be reached and answers commands. */
    {"product",      1,
     "{'modules':<odd?<8%[<300-300*'m<0-9999>'>]|<modules>>|<modules>>,'count':<0-5>,'registers':<10%null|<0-120>>,"
     "<plain?|'status':'<own_status>',<manners>>"                                                               },
    {"manners",      1,
     "<15%'unreachable':<0-2>,><20%'reply_delay':<30%null|<0-120>>,>"
     "<sticky?<70%'answers':{'recover':null},|<answers>>|<answers>>"                                            },
    {"answers",      1,  "<25%'answers':{'<33%bypass|<50%recover|set_count>>':<answer>},>"                      },
    {"answer",       1,  "<40%null|{'status':'<status>','count':<0-10>,'after':<0-90>}>"                        },

 /* How a boot ends. */
    {"frame",        1,
     "'<blamed?<95%<module>|<stranger>>|<65%<module>|<stranger>>><50%!Work+0x2|+0x1a2b>'"                       },
    {"frames",       1,  "'frames':['nt!KeBugCheckEx+0x107',<blamed?<1-3*<frame>>|<0-3*<frame>>>]"              },
    {"crash",        1,
     "{<20%'minidump':false,><25%'complete':true,><30%'written':<0-200>,>"
     "<40%'recorded':<15%null|<0-400>>,><odd?<30%'stack':'<odd_line>\\n<50%<odd_line>\\n<odd_line>\\n>',>>"
     "<frames>}"                                                                                                },
    {"blue_screen",  1,  "'ends':'blue_screen','crash':<crash>"                                                 },
    {"ends",         1,
     "<plain?'ends':'clean'|<blamed?<10%'ends':'clean'|<20%'ends':'power_loss'|<blue_screen>>>|"
     "<35%'ends':'clean'|<40%'ends':'power_loss'|<blue_screen>>>>>"                                             },

    {"devices",      1,  "<25%[]|[{'product':'<who>',<70%'device_id':'d1','agent_version':'1.2'>}]>"            },
    {"management",   1,
     "{<40%'devices':<devices>,><20%'error':<0-1>,>"
     "<20%'answer':<30%null|{'errcode':<0-1>}>,><20%'echo_error':<0-1>,>"
     "<20%'delay':<0-90>,'echo_delay':<0-90>,><10%'silent':<50%true|false>,>"
     "'link':<60%true|false>}"                                                                                  },

 /* Changes of the machine at a boot: crash records of the platform's drivers, an update of the
     * drivers, a dump that was created at another time than it was written. */
    {"files",        1,
     "'files':[<15%{'path':'{bin}\\\\crash_config.cfg','record_count':<0-5>},{'path':'" DRIVER_FOLDER
     "oxnisp_driver\\\\crash_config.cfg','record_count':<0-3>},>"
     "<6%{" UPDATE_FILE ",'text':'x'},>"
     "<10%{'path':'C:\\\\Windows\\\\Minidump\\\\copied.dmp',<frames>,'written':<0-200>,"
     "'created':'2024-0<1-9>-1<0-9>T0<0-9>:30:00Z'}>],"                                                         },
    {"service",      1,  "['<50%running|<50%stopped|stop_pending>>']"                                           },
    {"services",     1,  "'services':{'load_driver':<service>,'oxnisp_driver':<service>},"                      },
    {"base",         1,  "'base_folder':<50%true|false>,"                                                       },
    {"engine",       1,
     "'engine':{'fails':{<25%'OpenDumpFileWide':2147942402|<33%'GetStackTrace':2147500037>>}},"                 },
    {"polls",        1,
     "'registry':[{'key':'SYSTEM\\\\CurrentControlSet\\\\Services\\\\load_driver',"
     "'name':'TimerMaxCount','data':'<10%-1|<0-14>>'}],"                                                        },
    {"machine",      1,
     "{<20%'time_zone':'<zone>',><plain?|<15%<services>><files><6%<base>><10%<engine>>>"
     "<10%<polls>>}"                                                                                            },
    {"log",          1,
     "<4%null|<10%{'winlogon':null}|<5%{'start':null}|"
     "{'winlogon':<20%<5-300>|<5-60>>}>>>"                                                                      },

 /* A step of which the agent must run. */
    {"agent_step",   25, "'register':'<who>'"                                                                   },
    {"agent_step",   20, "'unsubscribe':'<who>'"                                                                },
    {"agent_step",   20, "'tell':'<who>'"                                                                       },
    {"agent_step",   10,
     "'send':'<who>','message':{'product_name':'z','type':'<80%conflict|nonsense>','count':1,"
     "'status':'working','data':{'driver_module':[]}}"                                                          },
    {"agent_step",   25, "'console':'<sticky?<recovery>|<blamed?<recovery>|<line>>>'"                           },
    {"recovery",     1,  "<40%bypass -r|<line>>"                                                                },
    {"line",         1,  "bypass -p"                                                                            },
    {"line",         1,  "bypass"                                                                               },
    {"line",         1,  "bypass -rx"                                                                           },
    {"line",         2,  "<plain?bypass|<50%bypass -r|other>>"                                                  },

 /* A step that needs none. A registration without effect is followed by an ordinary one. */
    {"machine_step", 60, "<any_step>"                                                                           },
    {"machine_step", 40, "<plain?<any_step>|<failing_step>>"                                                    },
    {"any_step",     25, "'link':<20%2|<60%true|false>>"                                                        },
    {"any_step",     20,
     "'product':'<who>','set':{'count':<0-10>,<plain?|'status':'<own_status>',<manners>>}"                      },
    {"any_step",     10, "'management':<management>"                                                            },
    {"any_step",     5,
     "'product':'<who>','set':{'registration':{'product_name':'b','type':'<50%conflict|reg>',"
     "'count':<0-11>,'status':'<plain?working|<status>>','data':{'driver_module':<modules>}}}"                  },
    {"failing_step", 7,  "'machine':{'time_zone':'<zone>'}"                                                     },
    {"failing_step", 5,  "'machine':{<base>}"                                                                   },
    {"failing_step", 11, "'fail':<failing_call>,'nth':<50%1|<1-6>>"                                             },
    {"failing_step", 7,  "'clock':'2024-03-0<6-9>T<80%<0-1><0-9>|2<0-3>>:<0-5><0-9>:00Z'"                       },
    {"failing_step", 6,  "'file':{" UPDATE_FILE ",'text':'x'}"                                                  },
    {"failing_step", 4,  "'delete_file':'" DRIVER_FOLDER "driver\\\\oxni_driver_updata.cfg'"                    },
    {"failing_call", 1,  "'oxni_timer_start'"                                                                   },
    {"failing_call", 1,  "'OpenEventLogW','error':5"                                                            },
    {"failing_call", 1,  "'wdu_json_dump_file_ejs'"                                                             },
    {"failing_call", 1,  "'oxni_path_del_file_u','error':32,'times':9"                                          },

 /* A step of an odd machine, of which the agent runs. */
    {"odd_failure",  1,  "'fail':<failure>,'nth':<60%1|<1-9>>,'times':<80%1|<0-3>>"                             },
    {"odd_step",     30, "<odd_failure>"                                                                        },
    {"odd_step",     3,  "'fail_allocation':<1-60>"                                                             },
    {"odd_step",     14, "'send':'<who>','message':<odd_message>"                                               },
    {"odd_step",     5,  "'product':'<who>','set':{'registration':<odd_message>}"                               },
    {"odd_step",     3,
     "'callback':'service','arguments':{'of':'XNI/BYPASS','error':<0-1>,'moment':<0-5>,'message':<odd_message>}"},
    {"odd_step",     2,  "'callback':'subscriber','arguments':{'of':'XNI/BYPASS','event':<0-2>}"                },
    {"odd_step",     4,  "'order':'XNI/BYPASS','message':{'type':<odd_order>,'count':<odd_count>}"              },
    {"odd_step",     4,  "'management':{<50%'echo':'<odd_text>'|'devices':[<1-2*<odd_device>>]>}"               },
    {"odd_step",     3,  "'management':{'answer':{<80%'errcode':<odd_value>>},'error':<0-2>}"                   },
    {"odd_step",     3,  "'report_link':<50%true|false>"                                                        },
    {"odd_step",     3,  "'log_level':'<50%debug|<33%info|<50%warn|error>>>'"                                   },
    {"odd_step",     16, "'file':<odd_file>"                                                                    },
    {"odd_step",     4,  "'delete_file':'<odd_path>'"                                                           },
    {"odd_step",     6,  "'registry':{'key':'SYSTEM\\\\CurrentControlSet\\\\<odd_setting>}"                     },
    {"odd_step",     6,
     "'event':{'source':'<50%Microsoft-Windows-Kernel-<50%Power|General>|"
     "<50%BugCheck|Microsoft-Windows-Winlogon>>','id':<20%<0-9>|<25%12|<33%41|<50%1001|7001>>>>,"
     "'strings':[<0-9*'<50%<0-300>|<odd_text>>'>]}"                                                             },
    {"odd_line",     3,  "<module><50%!Work>+0x2"                                                               },
    {"odd_line",     1,  "<50% a_flt|A_FLT.sys>+0x1"                                                            },
    {"odd_line",     1,  "00 fffff801`00000000 fffff801`0001 : 1 2 : <50%b_flt|c_net!Send>+0x1a"                },
    {"odd_line",     1,  "<50%!Work+0x2|<50%+0x1|d_sp>>"                                                        },
    {"odd_text",     1,  "<25%|<33%a_flt|<50%\xc3\xa9\xe6\x97\xa5|%s%n>>>"                                      },
    {"odd_value",    1,  "<0-400>"                                                                              },
    {"odd_value",    1,  "'<odd_text>'"                                                                         },
    {"odd_value",    1,  "<20%null|<25%-1|<33%2.5|<50%true|4294967297>>>>"                                      },
    {"odd_value",    1,  "<50%[<0-2*<0-3>>]|{'a':<0-3>}>"                                                       },
    {"odd_count",    1,  "<70%<0-12>|<30%70000|<odd_value>>>"                                                   },
    {"odd_order",    1,  "<90%'<33%bypass|<50%recover|set_count>>'|<odd_value>>"                                },
    {"odd_modules",  1,
     "<75%[<0-3*<90%'<module>'|<odd_value>>>]|<20%[<300-300*'m<0-9999>'>]|<odd_value>>>"                        },
    {"odd_message",  1,
     "{<95%'product_name':<85%'<who>'|<odd_value>>,><95%'type':<85%'<40%reg|<70%modify|conflict>>'|"
     "<odd_value>>,><95%'count':<odd_count>,><95%'status':<75%'<status>'|<odd_value>>,>"
     "<90%'data':<85%{<95%'driver_module':<odd_modules>>}|<odd_value>>>}"                                       },
    {"odd_device",   1,
     "{<85%'product':<75%'<who>'|<odd_value>>,><85%'device_id':<75%'d2'|<odd_value>>,>"
     "<85%'agent_version':<75%'3'|<odd_value>>>}"                                                               },
    {"odd_path",     2,  DATA_FOLDER "bypass_mgr_persistence.ejs"                                               },
    {"odd_path",     1,  DATA_FOLDER "bypass_mgr_<50%upload|dumprecord>.ejs"                                    },
    {"odd_path",     1,  "{bin}\\\\crash_config.cfg"                                                            },
    {"odd_path",     1,  DRIVER_FOLDER "driver\\\\oxni_driver_<50%recover|updata.cfg>"                          },
    {"odd_file",     3,
     "{'path':'" DATA_FOLDER "bypass_mgr_persistence.ejs','document':{<95%'start_time':"
     "<85%1709802000|<odd_value>>,><95%'data':<90%{<50%'crash_info':{<90%'path':<odd_entry>,>"
     "<90%'create_time':<odd_entry>,><90%'module_name':<odd_entry>>},>'<who>':{<90%'count':"
     "<odd_count>,><90%'status':<80%<0-4>|<odd_value>>>}}|<odd_value>>>}}"                                      },
    {"odd_entry",    1,  "<80%'<50%<module>|<50%C:\\\\a.dmp|2024-03-07 09:00:00>>'|<odd_value>>"                },
    {"odd_file",     1,
     "{'path':'" DATA_FOLDER "bypass_mgr_upload.ejs','document':{'<who>':<50%<odd_value>|"
     "'2024-03-07 09:00:<10-59>'>}}"                                                                            },
    {"odd_file",     1,
     "{'path':'" DATA_FOLDER "bypass_mgr_dumprecord.ejs','document':{'dump_time':<50%<odd_value>|"
     "13354275<0-9>060000000>}}"                                                                                },
    {"odd_file",     2,  "{'path':'<odd_path>','text':'<odd_text>','written':<0-100>}"                          },
    {"odd_file",     2,
     "{'path':'<50%{bin}|" DRIVER_FOLDER
     "oxnisp_driver>\\\\crash_config.cfg','record_count':<20%70000|<0-5>>}"                                     },
    {"odd_setting",  1,
     "Control\\\\CrashControl','name':'<50%DumpFile|MinidumpDir>','type':'REG_<25%SZ|"
     "<33%EXPAND_SZ|<50%MULTI_SZ|BINARY>>>','data':'<20%|<50%C:\\\\Windows\\\\|%TMP%\\\\>a>'"                   },
    {"odd_setting",  1,
     "Services\\\\<50%load_driver|oxnisp_driver>','name':'<50%TimerMaxCount|CrashCount>','data':"
     "'<50%<0-300>|<odd_text>>'"                                                                                },
};

#endif
