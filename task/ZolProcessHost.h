#ifndef ZOL_TASK_ZOLPROCESSHOST_H
#define ZOL_TASK_ZOLPROCESSHOST_H

/// Hands the layers below what they ask for: the task managers as their inbox, the application manager as their host.
/// Called by the constructor of the application manager, whose instance answers from then on.
void zolHostProcess();

#endif
