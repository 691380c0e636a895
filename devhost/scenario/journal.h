/*
 * The journal of a run: its events in order. Views print it, expectations check it.
 */
#ifndef DEVHOST_JOURNAL_H
#define DEVHOST_JOURNAL_H

#include <cstdint>

#include <string>
#include <vector>

enum happening_kind {
    HAPPENED_BOOT,     /* Windows starts */
    HAPPENED_END,      /* this run of Windows ends */
    HAPPENED_AGENT,    /* the agent starts, stops, exits */
    HAPPENED_STEP,     /* something that the scenario does to the machine */
    HAPPENED_MESSAGE,  /* a product's message reached the plug-in */
    HAPPENED_REFUSED,  /* the platform refused a message */
    HAPPENED_LEFT,     /* a product left */
    HAPPENED_COMMAND,  /* the plug-in pushed a command */
    HAPPENED_REPLY,    /* the platform answered that push */
    HAPPENED_STATE,    /* a product changed its state */
    HAPPENED_LINK,     /* the state of the management link reached the plug-in */
    HAPPENED_UPLOAD,   /* the plug-in delivered a request to the management side */
    HAPPENED_RESPONSE, /* it was answered */
    HAPPENED_ASKED,    /* the plug-in called another module's console command, and its answer */
    HAPPENED_CONSOLE,  /* a console command was typed */
    HAPPENED_ECHO,     /* the plug-in printed to the console */
    HAPPENED_LOG,      /* a log line of the plug-in */
    HAPPENED_CALL,     /* a traced call */
    HAPPENED_COMPLAINT /* the platform's contract was violated */
};

struct happening {
    enum happening_kind kind;
    int boot;         /* from 1 */
    uint64_t ms;      /* since Windows started */
    uint64_t now;     /* FILETIME */
    std::string who;  /* "windows", "agent", "plug-in", "management", "person" or a product */
    std::string text; /* for reading, one line */
    std::string json; /* the message, when there is one */
    int32_t number;   /* error of a reply, level of a log line, state of a link */
    std::string whom; /* the product that a command is for */
};

typedef void (*journal_view_fn)(const happening &what, void *user);

/* Returns all events so far, oldest first. */
const std::vector<happening> &journal_all(void);

/* Adds an event of now. */
void journal_add(enum happening_kind kind, const std::string &who, const std::string &text,
                 const std::string &json = "", int32_t number = 0, const std::string &whom = "");

/* Sets and returns the number of the boot, from 1. */
void journal_set_boot(int boot);
int journal_boot(void);

/* Sets a folder that texts show as a short name, since it differs from run to run. */
void journal_set_folder(const std::string &folder, const std::string &shown);

/* Sets the function that receives each event as it is added. */
void journal_set_view(journal_view_fn view, void *user);

void journal_clear(void);

/* The name of a kind, for machines, and the kind of a name; an unknown name gives HAPPENED_BOOT. */
const char *journal_kind_name(enum happening_kind kind);
enum happening_kind journal_kind(const std::string &name);

#endif
