"""pymoira.tensor: the QTensor type and its operations live in pymoira.tensor.tensor."""
